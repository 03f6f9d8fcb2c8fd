#pragma once

#include "Commands.h"
#include "quarn/core/IniFile.h"

namespace calvane_program {

/// Reads a description and puts `sets` into it. Throws Exception for what cannot be read.
quarn::core::IniFile ReadDescription(const DescriptionSource& source);

/// The text of the INI file that a line of plugins stands for:
///
///     TYPE [KEY=VALUE ...] ! TYPE [KEY=VALUE ...] ! ...
///
/// A plugin is called by its type and a number from 0, or as `name=NAME` says. Its keys are those of its group.
/// Further chains follow behind the first one, after a blank; one that begins with `NAME.` or `NAME.OUTPUT` goes on
/// from an output of a plugin that was named before, every other one is a pipeline of its own. Blanks in values
/// stand between double quotes. Throws Exception with the place and what is wrong.
std::string ToIni(const std::string& line);

/// The text of an INI file with the content of `ini`.
std::string ToText(const quarn::core::IniFile& ini);

} // namespace calvane_program
