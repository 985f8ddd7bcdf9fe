#pragma once

namespace lmkit {

/// Connects the settings to the parts of the kit below them that read stored configuration
/// (AccNode's loss score reads `enableNewLossScore` of the stored general configuration).
/// Idempotent and thread-safe. The settings stores call it on first use, and a program that
/// links ObjectPropertyStore has it called before main, so the tunnel, which may score nodes
/// before it ever touches a store, still reads what the app stored.
void installSettingsHooks();

}  // namespace lmkit
