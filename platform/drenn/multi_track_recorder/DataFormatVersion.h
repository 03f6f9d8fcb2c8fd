#pragma once

#include <cstdint>
#include <string>

#include "drenn/Export.h"

namespace drenn::multi_track_recorder {

/// What the records of a track are: a name and a version that its producers and readers agree on. The store
/// keeps both and gives them no meaning.
class DRENN_API DataFormatVersion {
public:
    DataFormatVersion() = default;
    DataFormatVersion(const std::string& name, std::uint32_t version) : name_(name), version_(version) {}

    const std::string& getName() const { return name_; }
    std::uint32_t getVersion() const { return version_; }

private:
    std::string name_;
    std::uint32_t version_ = 0;
};

inline bool operator==(const DataFormatVersion& a, const DataFormatVersion& b) {
    return a.getVersion() == b.getVersion() && a.getName() == b.getName();
}
inline bool operator!=(const DataFormatVersion& a, const DataFormatVersion& b) {
    return !(a == b);
}

} // namespace drenn::multi_track_recorder
