#pragma once

#include <string>

#include "drenn/multi_track_recorder/internal/Store.h"

/// A store in a folder that does nothing by itself.
inline drenn::multi_track_recorder::StoreOptions StoreIn(const std::string& folder) {
    drenn::multi_track_recorder::StoreOptions options;
    options.storage = folder + "/data";
    options.database = folder + "/database";
    options.background = false;
    return options;
}
