#include "api/RecorderMedia.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "record_source/ServiceSource.h"

namespace calvane_web {
namespace {

using namespace calvane_recording;

/// Each reads three tracks at most, of the 16 that the recorder gives out: one is left for others.
constexpr std::size_t kMostSources = 5;
constexpr std::size_t kMostSourcesOfOne = 3; ///< What a page plays, a picture and an export.

class RecorderSource : public IMediaSource {
public:
    RecorderSource(ClientPool::Lease client, std::function<bool()> isStopped)
        : client_(std::move(client)), records_(*client_, std::move(isStopped)) {}

    IRecordSource& Records() override { return records_; }
    void ForEachInterval(TrackKind track, const Span& span,
                         const std::function<bool(const Interval&)>& onInterval) override {
        client_->ForEachInterval(static_cast<unsigned int>(track), span, onInterval);
    }

private:
    ClientPool::Lease client_;
    ServiceSource records_;
};

std::string HostName() {
    std::array<char, 64> host{};
    gethostname(host.data(), host.size() - 1);
    std::string name = host.data();
    name.erase(std::remove_if(name.begin(), name.end(),
                              [](char each) {
                                  return std::isalnum(static_cast<unsigned char>(each)) == 0 && each != '-';
                              }),
               name.end());
    return name;
}

} // namespace

RecorderMedia::RecorderMedia() : clients_(kMostSources, kMostSourcesOfOne) {}

MediaChoice RecorderMedia::Choose(Query& /*query*/, const std::string& client,
                                  std::function<bool()> isStopped) {
    return {HostName(), [this, client, isStopped = std::move(isStopped)] {
                return std::make_unique<RecorderSource>(clients_.Borrow(client), isStopped);
            }};
}

} // namespace calvane_web
