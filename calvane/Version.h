#pragma once

namespace quarn::calvane {

/// The version of the framework: modules are built against it and checked against it when they are loaded.
inline constexpr unsigned short kVersionMajor = 1;
inline constexpr unsigned short kVersionMinor = 3;
inline constexpr unsigned short kVersionPatch = 0;
inline constexpr char kVersion[] = "1.3.0";

} // namespace quarn::calvane
