// Reading all that the catalogue knows.

#include <algorithm>
#include <map>
#include <stdexcept>

#include "drenn/multi_track_recorder/internal/io/Catalogue.h"

namespace drenn::multi_track_recorder {
namespace {

constexpr std::size_t kSaltBytes = 8;
constexpr std::size_t kHintBytes = 28; // Track, serial, leading bytes or number and step.

std::uint32_t Small(const Statement& row, int column) {
    return static_cast<std::uint32_t>(row.Number(column));
}

void Take(const LeadingBytes& bytes, bool isStep, std::optional<RecordsHint>& hint) {
    if (!isStep) {
        hint = RecordsHint{bytes};
    } else if (hint) {
        ByteReader reader(bytes.data(), bytes.size());
        hint->last = reader.U64();
        hint->step = reader.U64();
    }
}

/// What no store can have, whatever happened to it: numbers like these would overflow, or loop for ever. Nothing if
/// all is possible.
const char* Absurdity(const CatalogueContent& content) {
    for (const TrackRow& row : content.tracks) {
        if (row.firstSerial > kMostSerial || row.nextSerial > kMostSerial) {
            return "a track whose serials are out of range";
        }
    }
    for (const ErasedRow& row : content.erased) {
        if (!row.range.IsPossible()) {
            return "an erased range that is none";
        }
    }
    std::map<std::uint32_t, std::uint64_t> ends;
    for (const ExtentRow& row : content.extents) {
        if (row.count > kMostSerial ||
            !SerialRange{row.firstSerial, row.firstSerial + row.count}.IsPossible()) {
            return "an extent whose serials are out of range";
        }
        std::uint64_t& end = ends[row.track]; // The survivors of a track are made in this order.
        if (row.firstSerial < end) {
            return "extents of a track that overlap";
        }
        end = row.firstSerial + row.count;
    }
    return nullptr;
}

} // namespace

std::string ToText(const DamageRow& row, const std::string& path) {
    return path + ": bytes " + std::to_string(row.first) + " to " + std::to_string(row.end) +
           (row.kind == DamageRow::Kind::Damaged ? " are damaged" : " at the end were never finished");
}

CatalogueContent Catalogue::Load() {
    const std::lock_guard<std::mutex> lock(mutex_);
    CatalogueContent content;
    const auto each = [this](const char* sql, auto take) {
        for (Statement row(database_, sql); row.Step();) {
            take(row);
        }
    };
    each("SELECT id, info FROM recordings ORDER BY id", [&](const Statement& row) {
        content.recordings.push_back({Small(row, 0), row.Text(1)});
    });
    each(
        "SELECT id, recording, sparse, format_name, format_version, first_serial, next_serial FROM tracks"
        " ORDER BY id",
        [&](const Statement& row) {
            content.tracks.push_back({Small(row, 0), Small(row, 1), row.Number(2) != 0, row.Text(3),
                                      Small(row, 4), row.Number(5), row.Number(6)});
        });
    each("SELECT lane, sequence, length, time, removing FROM segments ORDER BY lane, sequence",
         [&](const Statement& row) {
             content.segments.push_back({{Small(row, 0), Small(row, 1)},
                                         row.Number(2),
                                         row.Number(3),
                                         row.Number(4) != 0,
                                         std::nullopt});
         });
    each(
        "SELECT track, lane, sequence, first_serial, count FROM extents"
        " ORDER BY lane, sequence, track, first_serial",
        [&](const Statement& row) {
            content.extents.push_back(
                {Small(row, 0), {Small(row, 1), Small(row, 2)}, row.Number(3), row.Number(4), std::nullopt});
        });
    each("SELECT track, first, end FROM erased ORDER BY track, first", [&](const Statement& row) {
        content.erased.push_back({Small(row, 0), {row.Number(1), row.Number(2)}});
    });
    each("SELECT track, from_serial FROM infos ORDER BY track, from_serial", [&](const Statement& row) {
        content.infos.push_back({Small(row, 0), row.Number(1), {}, false});
    });
    each("SELECT id, next_sequence FROM lanes ORDER BY id", [&](const Statement& row) {
        content.nextSegments.push_back({Small(row, 0), Small(row, 1)});
    });
    if (HasTable("damage")) {
        each("SELECT lane, sequence, first, end, kind FROM damage ORDER BY lane, sequence, first",
             [&](const Statement& row) {
                 const auto kind =
                     row.Number(4) == 0 ? DamageRow::Kind::Unfinished : DamageRow::Kind::Damaged;
                 content.damage.push_back(
                     {{Small(row, 0), Small(row, 1)}, row.Number(2), row.Number(3), kind});
             });
    }
    if (HasTable("hints")) {
        LoadHints(content);
    }
    if (const char* wrong = Absurdity(content)) {
        throw std::runtime_error("The catalogue " + database_.Path() + " is damaged: it has " + wrong +
                                 "; calvane-store rebuild makes a new one");
    }
    return content;
}

/// A hint that is not as this program writes it is as if there were none.
void Catalogue::LoadHints(CatalogueContent& content) {
    auto segment = content.segments.begin();
    auto extent = content.extents.begin();
    Statement row(database_, "SELECT lane, sequence, salt, leading FROM hints ORDER BY lane, sequence");
    while (row.Step()) {
        const SegmentKey key{Small(row, 0), Small(row, 1)};
        const std::string salt = row.Text(2);
        const std::string leading = row.Text(3);
        segment = std::find_if(segment, content.segments.end(),
                               [&](const SegmentRow& each) { return !(each.key < key); });
        extent = std::find_if(extent, content.extents.end(),
                              [&](const ExtentRow& each) { return !(each.segment < key); });
        if (segment != content.segments.end() && segment->key == key && salt.size() == kSaltBytes) {
            segment->salt =
                ByteReader(reinterpret_cast<const unsigned char*>(salt.data()), salt.size()).U64();
        }
        ByteReader entries(reinterpret_cast<const unsigned char*>(leading.data()), leading.size());
        while (entries.Left() >= kHintBytes) {
            const std::uint32_t tag = entries.U32();
            const std::uint32_t track = tag & ~kStepOfTrack;
            const std::uint64_t serial = entries.U64();
            LeadingBytes bytes{};
            entries.Raw(bytes.data(), bytes.size());
            const auto first = std::find_if(extent, content.extents.end(), [&](const ExtentRow& each) {
                return !(each.segment == key) || (each.track == track && each.firstSerial == serial);
            });
            if (first != content.extents.end() && first->segment == key) {
                Take(bytes, tag != track, first->hint);
            }
        }
    }
}

} // namespace drenn::multi_track_recorder
