#pragma once

namespace quarn::calvane {

// What a module exports.

/// A CalvaneModuleDefinition.
inline constexpr char kDefinitionSymbol[] = "gCalvaneModuleDefinition";
/// Followed by the name of a plugin type: the function that makes one.
inline constexpr char kEntryPointPrefix[] = "CalvaneCreatePlugin__";
/// Followed by the name of a plugin type: the text of its declaration, ended by a NUL byte. Optional.
inline constexpr char kDeclarationPrefix[] = "CalvanePluginDeclaration__";

} // namespace quarn::calvane
