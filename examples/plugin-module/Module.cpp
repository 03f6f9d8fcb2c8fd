// What the module exports: the version that it was built against, once, and each plugin type with its declaration.

#include "ByteMaskFilter.h"
#include "ChecksumSink.h"
#include "PatternSource.h"
#include "calvane/config/ModuleDefinition.h"

CALVANE_DEFINE_MODULE();
CALVANE_EXPORT_PLUGIN(patterns::, PatternSource);
CALVANE_EXPORT_PLUGIN(patterns::, ByteMaskFilter);
CALVANE_EXPORT_PLUGIN(patterns::, ChecksumSink);

CALVANE_DECLARE_PLUGIN(PatternSource, R"(
[plugin]
summary = Generates blocks of bytes that are easy to recognise
outputs = ramp, stripes
generates = yes

[setting count]
kind = integer
unit = blocks
default = 10
range = 0 to 2147483647
summary = how many blocks to generate

[setting block.bytes]
kind = integer
unit = bytes
default = 256
range = 1 to 2147483647
summary = size of one block

[setting interval.ms]
kind = integer
unit = ms
default = 0
range = 0 to 2147483647
summary = time between two blocks
)");

CALVANE_DECLARE_PLUGIN(ByteMaskFilter, R"(
[plugin]
summary = Combines every byte with a value
inputs = default
outputs = -

[setting value]
kind = integer
default = 255
range = 0 to 255
summary = the value

[setting operation]
kind = choice
choices = and, or, xor
default = xor
summary = how a byte and the value are combined
)");

CALVANE_DECLARE_PLUGIN(ChecksumSink, R"(
[plugin]
summary = Writes the time, length and checksum of every buffer to a text file
inputs = default

[setting filename]
kind = path
required = yes
summary = the file to write

[setting block.bytes]
kind = integer
unit = bytes
default = 0
range = -2147483648 to 2147483647
summary = what the input requires of the format; 0: nothing
)");
