#include "FleetCommands.h"

#include "Commands.h"
#include "Source.h"
#include "fleet/DeviceList.h"
#include "fleet/FleetSource.h"

namespace calvane_fleet {

void Export(const FleetRun& run) {
    NatsConnection connection(run.nats);
    RequireDevice(connection, run.device);
    DeviceStream stream(connection, run.device);
    FleetSource records(stream, [&run] { return run.isInterrupted.load(); });
    calvane_recording::MediaRun media;
    media.program = "calvane-fleet";
    media.zone = run.zone;
    media.options.from = run.from;
    media.options.to = run.to;
    media.options.output = run.output;
    media.options.format = run.format;
    media.options.tracks = run.tracks;
    media.options.gaps = run.gaps;
    media.options.fragmented = run.fragmented;
    media.options.force = run.force;
    media.options.json = run.json;
    calvane_recording::ExportMovie(media, calvane_recording::Source(media, records));
}

} // namespace calvane_fleet
