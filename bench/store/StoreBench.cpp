// calvane_store_bench: one measurement of one candidate in one folder, as a line of JSON. bench/store.py makes the
// file systems, reads the device's counters and puts the figures together.

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <stdexcept>

#include "Input.h"
#include "StoreFolder.h"

namespace {

using drenn::multi_track_recorder::BlobRecord;
using drenn::multi_track_recorder::Store;
using drenn::multi_track_recorder::Track;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// A figure of /proc/self/status in KiB, such as "VmRSS".
long ReadStatus(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == key + ":") {
            long figure = 0;
            status >> figure;
            return figure;
        }
    }
    throw std::runtime_error("/proc/self/status has no " + key);
}

long HeapKib() {
    const auto heap = mallinfo2();
    return static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
}

void Require(bool isSo, const InputRecord& record) {
    if (!isSo) {
        throw std::runtime_error("record " + std::to_string(record.index) + " of track " +
                                 std::to_string(record.track) + " is not what was appended");
    }
}

void RequireSame(const InputRecord& record, const std::vector<Span>& content) {
    std::size_t place = 0;
    for (Span part : content) {
        while (part.size > 0) {
            const bool isHeader = place < InputRecord::kHeaderBytes;
            const std::size_t end = isHeader ? InputRecord::kHeaderBytes : record.Bytes();
            const std::size_t length = std::min(part.size, end - place);
            const unsigned char* const wanted =
                isHeader ? record.header + place : record.body + (place - InputRecord::kHeaderBytes);
            Require(length > 0 && std::memcmp(part.data, wanted, length) == 0, record);
            part = {part.data + length, part.size - length};
            place += length;
        }
    }
    Require(place == record.Bytes(), record);
}

/// Replays seconds of the input as fast as it goes, with a commit for each.
void MeasureAppend(const std::string& name, const std::string& folder, std::uint32_t seconds) {
    const Input input;
    auto peer = MakePeer(name, folder, true);
    std::vector<double> commits;
    std::uint64_t payload = 0;
    const auto begin = Clock::now();
    for (std::uint32_t second = 0; second < seconds; ++second) {
        input.ForSecond(second, [&](const InputRecord& record) {
            peer->Append(record);
            payload += record.Bytes();
        });
        const auto commit = Clock::now();
        peer->Commit();
        commits.push_back(SecondsSince(commit) * 1e3);
    }
    const double wall = SecondsSince(begin);
    std::sort(commits.begin(), commits.end());
    std::printf("{\"payload\": %llu, \"seconds\": %f, \"median\": %f, \"p99\": %f, \"rss\": %ld}\n",
                static_cast<unsigned long long>(payload), wall, commits[commits.size() / 2],
                commits[commits.size() * 99 / 100], ReadStatus("VmRSS"));
}

/// Headers of video records at random.
void MeasureLookups(const std::string& name, const std::string& folder, std::uint32_t seconds,
                    std::uint32_t count) {
    const Input input;
    auto peer = MakePeer(name, folder, false);
    std::mt19937 random(2);
    std::vector<std::uint32_t> indexes(count);
    std::generate(indexes.begin(), indexes.end(),
                  [&] { return static_cast<std::uint32_t>(random() % (seconds * 30)); });
    Content content;
    const auto pass = [&](const auto& check) {
        const auto begin = Clock::now();
        for (const std::uint32_t index : indexes) {
            peer->ReadHeader(0, index, content);
            check(index);
        }
        return SecondsSince(begin) / count * 1e9;
    };
    const auto compare = [&](std::uint32_t index) {
        const InputRecord record = input.Get(0, index);
        Require(std::memcmp(content.data(), record.header, InputRecord::kHeaderBytes) == 0, record);
    };
    const double first = pass(compare);
    const double again = pass([](std::uint32_t) {});
    std::printf("{\"first\": %f, \"again\": %f}\n", first, again);
}

void MeasureRead(const std::string& name, const std::string& folder, std::uint32_t seconds) {
    const Input input;
    auto peer = MakePeer(name, folder, false);
    std::vector<Span> content;
    std::uint64_t payload = 0;
    const auto begin = Clock::now();
    for (std::uint32_t second = 0; second < seconds; ++second) {
        input.ForSecond(second, [&](const InputRecord& record) {
            peer->Read(record, content);
            RequireSame(record, content);
            payload += record.Bytes();
        });
    }
    std::printf("{\"payload\": %llu, \"seconds\": %f}\n", static_cast<unsigned long long>(payload),
                SecondsSince(begin));
}

/// One track of many records of 16 bytes, a sync every 10,000.
void Fill(const std::string& folder, std::uint32_t records) {
    Store store(drenn::multi_track_recorder::PosixFileSystem(), StoreIn(folder));
    const auto recordings = store.GetRecordings();
    const auto recording = recordings.empty() ? store.NewRecording() : recordings.front().lock();
    const auto track = recordings.empty() ? recording->newTrack() : recording->getTracks().front().lock();
    const auto begin = Clock::now();
    for (std::uint32_t index = track->size(); index < records; ++index) {
        unsigned char bytes[16] = {};
        std::memcpy(bytes, &index, sizeof index);
        BlobRecord record;
        record.add({bytes, sizeof bytes});
        *track << record;
        if (index % 10000 == 0) {
            store.Sync();
        }
    }
    std::printf("{\"seconds\": %f, \"rss\": %ld}\n", SecondsSince(begin), ReadStatus("VmHWM"));
}

/// Opening a large store, what it takes, and what erasing its first half takes.
void MeasureOpening(const std::string& folder) {
    BlobRecord(1).clear();
    const long rss = ReadStatus("VmRSS");
    const long heap = HeapKib();
    const auto begin = Clock::now();
    Store store(drenn::multi_track_recorder::PosixFileSystem(), StoreIn(folder));
    const double open = SecondsSince(begin);
    const auto track = store.GetRecordings().front().lock()->getTracks().front().lock();
    const long heapOpen = HeapKib() - heap;
    std::mt19937 random(3);
    const std::uint32_t size = track->size();
    constexpr unsigned kLookups = 20000;
    const auto lookups = Clock::now();
    for (unsigned i = 0; i < kLookups; ++i) {
        const auto index = static_cast<std::uint32_t>(random() % size);
        BlobRecord record(1);
        track->seekg(index);
        *track >> record;
        if (std::memcmp(record.blobs().at(0).data(), &index, sizeof index) != 0) {
            throw std::runtime_error("record " + std::to_string(index) + " is not what was appended");
        }
    }
    const double lookup = SecondsSince(lookups) / kLookups * 1e9;
    const long heapRead = HeapKib() - heap;
    const long peak = ReadStatus("VmHWM") - rss;
    const auto erase = Clock::now();
    track->eraseRange(0, size / 2);
    std::printf(
        "{\"records\": %u, \"open\": %f, \"lookup\": %f, \"heap_open\": %ld, \"heap_read\": %ld, "
        "\"peak\": %ld, \"erase\": %f}\n",
        size, open * 1e3, lookup, heapOpen, heapRead, peak, SecondsSince(erase) * 1e3);
}

void Run(const std::vector<std::string>& words) {
    const auto number = [&](std::size_t place) {
        return static_cast<std::uint32_t>(std::strtoul(words[place].c_str(), nullptr, 10));
    };
    const auto is = [&](const char* verb, std::size_t count) {
        return words[0] == verb && words.size() == count;
    };
    if (is("peers", 1)) {
        for (const std::string& name : PeerNames()) {
            std::printf("%s\n", name.c_str());
        }
    } else if (is("append", 4)) {
        MeasureAppend(words[1], words[2], number(3));
    } else if (is("lookup", 5)) {
        MeasureLookups(words[1], words[2], number(3), number(4));
    } else if (is("read", 4)) {
        MeasureRead(words[1], words[2], number(3));
    } else if (is("fill", 3)) {
        Fill(words[1], number(2));
    } else if (is("open", 2)) {
        MeasureOpening(words[1]);
    } else {
        throw std::runtime_error(
            "usage: calvane_store_bench peers | append PEER FOLDER SECONDS | lookup PEER FOLDER "
            "SECONDS COUNT | read PEER FOLDER SECONDS | fill FOLDER RECORDS | open FOLDER");
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        Run(words.empty() ? std::vector<std::string>{"help"} : words);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "calvane_store_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
