#pragma once

#include "Commands.h"
#include "quarn/core/IniFile.h"

namespace calvane_program {

/// Reads a description and puts `sets` into it. Throws Exception for what cannot be read.
quarn::core::IniFile ReadDescription(const DescriptionSource& source);

/// Translates a line of plugins into the text of an INI file:
///
///     TYPE [KEY=VALUE ...] ! TYPE [KEY=VALUE ...] ! ...
///
/// A plugin is named after its type with a number from 0, or by `name=NAME`. Its keys are those of its group.
/// Further chains may follow the first one; a chain that begins with `NAME.` or `NAME.OUTPUT` continues at an
/// output of an earlier plugin, any other chain is a pipeline of its own. Values with blanks are enclosed in double
/// quotes. Throws Exception with the place and what is wrong.
std::string ToIni(const std::string& line);

/// The text of an INI file with the content of `ini`.
std::string ToText(const quarn::core::IniFile& ini);

} // namespace calvane_program
