#pragma once

extern "C" {
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

#include <gmock/gmock.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "calvane/recording/RecordingManager.h"
#include "calvane/testing/CollectingSink.h"
#include "support/Program.h"

/// One packet, as ffprobe sees it in a file or as a buffer brings it.
struct Packet {
    std::int64_t decoding = 0; ///< In microseconds since the first packet of the stream.
    std::int64_t compositionOffset = 0;
    bool isKey = false;
    std::string hash;
};

inline bool operator==(const Packet& a, const Packet& b) {
    // Microseconds since another begin are rounded in another way.
    return std::abs(a.decoding - b.decoding) <= 1 &&
           std::abs(a.compositionOffset - b.compositionOffset) <= 1 && a.isKey == b.isKey && a.hash == b.hash;
}

inline std::ostream& operator<<(std::ostream& out, const Packet& packet) {
    return out << packet.decoding << (packet.compositionOffset < 0 ? "" : "+") << packet.compositionOffset
               << (packet.isKey ? " key " : " ") << packet.hash;
}

inline std::string Md5(const std::string& bytes) {
    std::array<std::uint8_t, 16> digest{};
    av_md5_sum(digest.data(), reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    std::string text;
    for (const std::uint8_t byte : digest) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", byte);
        text += digits.data();
    }
    return text;
}

/// Media files that FFmpeg's own programs make and describe.
class MediaTest : public testing::Test {
protected:
    /// A picture with a counter and a tone for so many seconds, as `codecs` says, in a file of this name.
    std::string MakeFile(const std::string& name, const std::string& codecs, int seconds = 3,
                         const std::string& size = "192x108") const {
        std::string arguments = "-v error -y -f lavfi -i testsrc=rate=30:size=" + size +
                                " -f lavfi -i sine=sample_rate=48000 -t " + std::to_string(seconds) + " " +
                                codecs + " " + name;
        EXPECT_EQ(Run("ffmpeg", arguments), "");
        return folder.Path(name);
    }
    /// What the program writes; it is to succeed.
    std::string Run(const std::string& program, const std::string& arguments) const {
        std::istringstream words(arguments);
        Program run("/usr/bin/" + program,
                    {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()},
                    folder.Path());
        const int status = run.Wait();
        EXPECT_EQ(status, 0) << program << " " << arguments << "\n" << run.Err();
        return run.Out();
    }
    /// All packets of the best stream of a kind: v or a.
    std::vector<Packet> Probe(const std::string& file, const std::string& kind) const {
        const std::string of = "-v error -select_streams " + kind + ":0 ";
        std::istringstream base(
            Run("ffprobe", of + "-show_entries stream=time_base -of default=nk=1:nw=1 " + file));
        std::int64_t over = 0;
        std::int64_t under = 0;
        char slash = 0;
        base >> over >> slash >> under;
        const auto microseconds = [=](const std::string& stamp) {
            const auto number = static_cast<long double>(std::stoll(stamp));
            return static_cast<std::int64_t>(
                number * 1'000'000 * static_cast<long double>(over) / static_cast<long double>(under) + 0.5L);
        };
        std::istringstream lines(Run("ffprobe", of +
                                                    "-show_packets -show_data_hash MD5 -of default=nw=1 "
                                                    "-show_entries packet=pts,dts,flags,data_hash " +
                                                    file));
        std::vector<Packet> packets;
        std::map<std::string, std::string> field; // Of one packet; the hash is the last.
        std::size_t unknown = 0;                  // At the beginning; Matroska has no decode times.
        for (std::string line; std::getline(lines, line);) {
            const std::size_t equals = line.find('=');
            field[line.substr(0, equals)] = line.substr(equals + 1);
            if (line.rfind("data_hash=", 0) == 0) {
                const bool isKnown = field["dts"] != "N/A";
                unknown += isKnown ? 0 : 1;
                packets.push_back({isKnown ? microseconds(field["dts"]) : 0, microseconds(field["pts"]),
                                   field["flags"][0] == 'K', field["data_hash"].substr(4)});
            }
        }
        for (std::size_t i = unknown; i-- != 0;) {
            packets[i].decoding =
                packets[unknown].decoding - static_cast<std::int64_t>((unknown - i) * 1'000'000 / 30);
        }
        const std::int64_t first = packets.empty() ? 0 : packets[0].decoding;
        for (Packet& packet : packets) {
            packet.compositionOffset -= packet.decoding;
            packet.decoding -= first;
        }
        return packets;
    }
    static std::int64_t TimeOf(const quarn::calvane::testkit::ReceivedBuffer& buffer) {
        return std::int64_t{buffer.timestamp.seconds} * 1'000'000 + buffer.timestamp.microseconds;
    }
    static std::vector<Packet> PacketsOf(
        const std::vector<quarn::calvane::testkit::ReceivedBuffer>& buffers) {
        std::vector<Packet> packets;
        for (const auto& buffer : buffers) {
            packets.push_back({TimeOf(buffer) - TimeOf(buffers[0]),
                               buffer.metadata.GetInt("CompositionOffsetUs"),
                               buffer.metadata.GetInt("KeyFrame") != 0, Md5(buffer.bytes)});
        }
        return packets;
    }
    static std::map<std::string, std::string> InfoOf(const quarn::calvane::testkit::ReceivedBuffer& buffer) {
        std::map<std::string, std::string> info;
        quarn::calvane::RecordingManager::deserializeTrackInfo(buffer.metadata.GetString("info"), info);
        return info;
    }

    const TempFolder folder;
};
