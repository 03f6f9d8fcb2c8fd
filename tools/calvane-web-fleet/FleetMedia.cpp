#include "FleetMedia.h"

#include <stdexcept>
#include <utility>

#include "fleet/DeviceList.h"
#include "fleet/FleetSource.h"

namespace calvane_web {
namespace {

using namespace calvane_recording;
using calvane_fleet::DeviceStream;
using calvane_fleet::FleetSource;

constexpr std::size_t kMostSources = 8;
constexpr std::size_t kMostSourcesOfOne = 3; ///< What a page plays, a picture and an export.

class DeviceMedia : public IMediaSource {
public:
    DeviceMedia(FleetConnections::Lease connection, const std::string& device,
                std::function<bool()> isStopped)
        : connection_(std::move(connection)),
          stream_(*connection_, device),
          records_(stream_, std::move(isStopped)) {}

    IRecordSource& Records() override { return records_; }
    void ForEachInterval(TrackKind track, const Span& span,
                         const std::function<bool(const Interval&)>& onInterval) override {
        for (const Interval& interval : records_.GetCoverage(track, span)) {
            if (!onInterval(interval)) {
                return;
            }
        }
    }

private:
    FleetConnections::Lease connection_;
    DeviceStream stream_;
    FleetSource records_;
};

} // namespace

FleetMedia::FleetMedia(const calvane_fleet::NatsOptions& options)
    : connections_(options, kMostSources, kMostSourcesOfOne) {}

MediaChoice FleetMedia::Choose(Query& query, const std::string& client, std::function<bool()> isStopped) {
    const std::string device = query.TakeOr("device", "");
    if (device.empty()) {
        throw std::invalid_argument("The parameter \"device\" is missing");
    }
    RequireDeviceName("device", device);
    return {device, [this, device, client, isStopped = std::move(isStopped)] {
                auto connection = connections_.Borrow(client);
                calvane_fleet::RequireDevice(*connection, device);
                return std::make_unique<DeviceMedia>(std::move(connection), device, isStopped);
            }};
}

void RequireDeviceName(const std::string& parameter, const std::string& text) {
    if (!calvane_fleet::IsDeviceName(text)) {
        throw std::invalid_argument(parameter + ": \"" + text +
                                    "\" is no device's name, which has letters, digits, - and _");
    }
}

} // namespace calvane_web
