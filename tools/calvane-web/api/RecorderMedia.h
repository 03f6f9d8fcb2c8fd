#pragma once

#include <cstdint>

#include "api/ClientPool.h"
#include "api/MediaSources.h"

namespace calvane_web {

/// The recorder that runs, as a source of media.
///
/// It gives out so many streams of records at once, so that only some sources are open at the same time.
///
/// Errors: those of ClientPool.
class RecorderMedia : public IMediaSources {
public:
    RecorderMedia();

    MediaChoice Choose(Query& query, const std::string& client, std::function<bool()> isStopped) override;
    std::uint64_t Failures() const { return clients_.Failures(); }

private:
    ClientPool clients_;
};

} // namespace calvane_web
