#include "pipelines/DescribedPipelines.h"

namespace calvane_program {

bool DescribedPipelines::Load() {
    std::string text = "Unknown exception";
    try {
        manager_.LoadFromIniFile(description_.GetIni());
        manager_.PipelinesConstructed();
        description_.WarnAboutUnused(manager_.GetUnusedSettings());
        return true;
    } catch (const std::exception& error) {
        text = error.what();
    } catch (...) {
        // What a plugin threw is no standard exception: its place is all that is known.
    }
    const quarn::calvane::LoadFailure failure = manager_.GetLoadFailure();
    description_.PrintError(failure.place, text);
    if (!failure.detail.empty()) {
        description_.PrintError(failure.place, failure.detail);
    }
    return false;
}

void DescribedPipelines::PrintFailure() {
    const auto failures = manager_.GetFailures();
    if (!failures.empty()) {
        description_.PrintError({failures.front().plugin, ""}, failures.front().text);
    }
}

} // namespace calvane_program
