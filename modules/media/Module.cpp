#include "MediaSource.h"
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
summary = options of the library for the input, such as "framerate=25, video_size=1280x720"

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
