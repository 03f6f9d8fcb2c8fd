#include "JpegSnapshot.h"
#include "MediaSource.h"
#include "TestPicture.h"
#include "calvane/config/ModuleDefinition.h"

CALVANE_DEFINE_MODULE();
CALVANE_EXPORT_PLUGIN(calvane_media::, MediaSource);
CALVANE_DECLARE_PLUGIN(MediaSource, R"(
[plugin]
summary = Reads the packets of a file, a stream's address or a device, without decoding them
outputs = video, audio, data
generates = yes

[setting url]
required = yes
summary = the file, address (rtsp://, http://, ...) or device to read

[setting format]
summary = name of the input format; needed for devices: v4l2, alsa, lavfi

[setting options]
summary = options of the library for the input, such as framerate=25, video_size=1280x720

[setting realtime]
kind = flag
default = 1
summary = read a file as its time passes; 0: as fast as possible

[setting loop]
kind = flag
default = 0
summary = read a file again and again

[setting start]
summary = time in UTC that the first packet gets, such as 2026-11-21T13:00:00Z; now, or with realtime 0 the file's length ago, unless given

[setting reconnect]
kind = flag
default = 1
summary = open live input again when it is lost

[setting timeout.ms]
kind = integer
unit = ms
default = 10000
range = 100 to 600000
summary = the longest silence of an input
)");

CALVANE_EXPORT_PLUGIN(calvane_media::, TestPicture);
CALVANE_DECLARE_PLUGIN(TestPicture, R"(
[plugin]
summary = A camera for those who have none: a picture with a counter and the time, and a tone
outputs = video, audio
generates = yes

[setting width]
kind = integer
unit = pixels
default = 1280
range = 64 to 4096
summary = width of the picture; even

[setting height]
kind = integer
unit = pixels
default = 720
range = 64 to 4096
summary = height of the picture; even

[setting rate]
kind = integer
default = 30
range = 1 to 120
summary = frames in a second

[setting bitrate.kbit]
kind = integer
default = 2000
range = 10 to 200000
summary = thousands of bits of video in a second

[setting keyframe.sec]
kind = integer
unit = s
default = 1
range = 1 to 60
summary = from one key frame to the next

[setting codec]
kind = choice
choices = auto, h264, mpeg4, mjpeg
default = auto
summary = codec of the picture; auto: the first of the others that there is an encoder for

[setting tone.hz]
kind = integer
unit = Hz
default = 440
range = 0 to 24000
summary = the tone; 0: silence

[setting seconds]
kind = integer
unit = s
default = 0
range = 0 to 86400
summary = end after so many; 0: never

[setting realtime]
kind = flag
default = 1
summary = as time passes; 0: as fast as possible, the last frame being of now
)");

CALVANE_EXPORT_PLUGIN(calvane_media::, JpegSnapshot);
CALVANE_DECLARE_PLUGIN(JpegSnapshot, R"(
[plugin]
summary = Makes a JPEG picture of a key frame every so often
inputs = default
outputs = -

[setting interval.sec]
kind = integer
unit = s
default = 10
range = 0 to 86400
summary = from one picture to the next, at least; 0: of every key frame

[setting quality]
kind = integer
default = 80
range = 1 to 100
summary = quality of the picture; more is better and larger

[setting width]
kind = integer
unit = pixels
default = 0
range = 0 to 16384
summary = width of the picture; 0: as it comes
)");
