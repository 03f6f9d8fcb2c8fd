#include "RecordingSink.h"
#include "RecordingSource.h"
#include "calvane/config/ModuleDefinition.h"

CALVANE_DEFINE_MODULE();
CALVANE_EXPORT_PLUGIN(recording::, RecordingSink);
CALVANE_DECLARE_PLUGIN(RecordingSink, R"(
[plugin]
summary = Records every buffer on a track of the device's recording
inputs = default

[setting track]
kind = choice
choices = video, audio, metadata
required = yes
summary = the track to record on

[setting gap.timeout.ms]
kind = integer
unit = ms
default = 500
range = 1 to 1000
summary = data counts as absent when no buffer came for four times as long as usual, and for so long at least

[setting rate.millihz]
kind = integer
default = 0
range = 0 to 1000000000
summary = how many buffers usually come in 1000 seconds; 0: learned from those that come

[setting sparse]
kind = flag
default = 0
summary = buffers come whenever they come: the data is present until the plugin ends

[setting clock]
kind = flag
default = 0
summary = take the time of all records from the clock instead of from the buffers

[setting info.*]
summary = a value for the track's info, before what the format of the buffers says
)");

CALVANE_EXPORT_PLUGIN(recording::, RecordingSource);
CALVANE_DECLARE_PLUGIN(RecordingSource, R"(
[plugin]
summary = Plays a stretch of the device's recording
outputs = video, audio, metadata
generates = yes

[setting from]
summary = time of the first record, such as 2026-11-21T13:00:00Z or "10min ago"; that of the oldest, unless given

[setting to]
summary = time of the last record; that of the newest at the start, unless given

[setting realtime]
kind = flag
default = 1
summary = as the time of the records passes; 0: as fast as possible

[setting skip.gaps]
kind = flag
default = 0
summary = do not wait where nothing is recorded for more than a second
)");
