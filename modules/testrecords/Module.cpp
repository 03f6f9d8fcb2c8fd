#include "TestRecordSource.h"
#include "calvane/config/ModuleDefinition.h"

CALVANE_DEFINE_MODULE();
CALVANE_EXPORT_PLUGIN(testrecords::, TestRecordSource);
CALVANE_DECLARE_PLUGIN(TestRecordSource, R"(
[plugin]
summary = Produces records that can be verified when they are read back
outputs = -
generates = yes

[setting track]
kind = choice
choices = video, audio, metadata
default = video
summary = what the announced format describes

[setting bytes.min]
kind = integer
unit = bytes
default = 1000
range = 12 to 2147483647
summary = shortest record

[setting bytes.max]
kind = integer
unit = bytes
default = 1000
range = 12 to 2147483647
summary = longest record; bytes.min unless given

[setting rate.millihz]
kind = integer
unit = records in 1000 s
default = 25000
range = 0 to 2147483647
summary = how many records; 0: as many as possible

[setting count]
kind = integer
unit = records
default = 0
range = 0 to 2147483647
summary = end after so many; 0: never

[setting same]
kind = integer
unit = records
default = 1
range = 1 to 2147483647
summary = so many have the same time
)");
