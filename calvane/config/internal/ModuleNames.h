#pragma once

namespace quarn::calvane {

// What a module exports.

/// A CalvaneModuleDefinition.
inline constexpr char kDefinitionSymbol[] = "gCalvaneModuleDefinition";
/// Followed by the name of a plugin type: the function that makes one.
inline constexpr char kEntryPointPrefix[] = "CalvaneCreatePlugin__";

} // namespace quarn::calvane
