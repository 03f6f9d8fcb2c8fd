#include "support/store/Workload.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>

using namespace drenn::multi_track_recorder;

namespace {

constexpr unsigned int kMostTracks = 5;

std::vector<unsigned char> NumberBlob(unsigned int track, unsigned int number) {
    std::vector<unsigned char> blob(16, 0xa5);
    std::memcpy(blob.data(), &track, sizeof track);
    std::memcpy(blob.data() + 8, &number, sizeof number);
    return blob;
}

// The number that a record tells, or nothing sensible.
unsigned int NumberOf(const BlobRecord& record) {
    unsigned int number = ~0U;
    if (!record.blobs().empty() && record.blobs()[0].size() == 16) {
        std::memcpy(&number, record.blobs()[0].data() + 8, sizeof number);
    }
    return number;
}

bool Holds(const BlobRecord& record, const TestRecord& expected) {
    const auto blobs = expected.Blobs();
    return record.blobs().size() == blobs.size() &&
           std::equal(blobs.begin(), blobs.end(), record.blobs().begin(), [](const auto& a, const Blob& b) {
               return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
           });
}

std::string Name(unsigned int track, unsigned int number) {
    return "track " + std::to_string(track) + " record " + std::to_string(number);
}

unsigned int NumberAt(Track& track, unsigned int index, std::string& info) {
    BlobRecord record;
    track.seekg(index);
    track.getInfo(info);
    track >> record;
    return NumberOf(record);
}

DataFormatVersion FormatOf(unsigned int track) {
    return {std::to_string(track), 1};
}

// What is wrong with one track of an opened store.
void CheckTrack(std::size_t moment, unsigned int number, Track& track, const TrackLife& life,
                std::vector<std::string>& faults) {
    std::vector<bool> present(life.records.size());
    unsigned int next = 0;
    for (unsigned int index = 0; index != track.size(); ++index) {
        BlobRecord record;
        track.seekg(index);
        track >> record;
        const unsigned int found = NumberOf(record);
        if (found >= life.records.size() || found < next || !Holds(record, {number, found})) {
            faults.push_back(Name(number, found) + " at index " + std::to_string(index) + " is wrong");
            return;
        }
        std::string info;
        track.seekg(index);
        track.getInfo(info);
        // The text of a record that was not durable may be lost; it never gets another one.
        const bool mayLackInfo = info.empty() && moment < life.records[found].durable;
        if (info != life.records[found].info && !mayLackInfo) {
            faults.push_back(Name(number, found) + " has the info \"" + info + "\"");
        }
        present[found] = true;
        next = found + 1;
    }
    for (unsigned int i = 0; i != life.records.size(); ++i) {
        const RecordLife& record = life.records[i];
        if (present[i] && moment >= record.erased) {
            faults.push_back(Name(number, i) + " came back");
        }
        if (!present[i] && moment >= record.durable && moment <= record.eraseBegun) {
            faults.push_back(Name(number, i) + " is lost");
        }
    }
}

} // namespace

std::vector<std::vector<unsigned char>> TestRecord::Blobs() const {
    std::vector<std::vector<unsigned char>> blobs{NumberBlob(track, number)};
    std::minstd_rand random(track * 1000003 + number + 1);
    const unsigned int more = static_cast<unsigned int>(random()) % 3;
    for (unsigned int blob = 0; blob != more; ++blob) {
        std::vector<unsigned char> bytes(static_cast<size_t>(random()) % (random() % 8 == 0 ? 3000 : 60));
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<unsigned char>(random()); });
        blobs.push_back(std::move(bytes));
    }
    return blobs;
}

StoreOptions Workload::SmallStore() {
    StoreOptions options;
    options.storage = "/card/data";
    options.database = "/card/database";
    options.maxPercent = 80;
    options.segmentBytes = 32 * 1024;
    options.background = false;
    return options;
}

Workload::Workload(SimFileSystem& disk, const StoreOptions& options, unsigned int seed,
                   std::vector<TrackLife> lives)
    : Workload(
          disk, [&disk] { return disk.GetMoment(); }, options, seed, std::move(lives)) {}

Workload::Workload(IFileSystem& files, std::function<std::size_t()> getMoment, const StoreOptions& options,
                   unsigned int seed, std::vector<TrackLife> lives)
    : files_(files),
      getMoment_(std::move(getMoment)),
      options_(options),
      random_(seed),
      lives_(std::move(lives)) {
    Open();
    if (store_->GetState() == StoreState::Good) {
        Adopt();
    }
    if (tracks_.empty()) {
        NewTrack();
    }
}

Workload::~Workload() {
    tracks_.clear();
}

void Workload::Open() {
    store_ = std::make_unique<Store>(files_, options_);
    for (const auto& recording : store_->GetRecordings()) {
        for (const auto& track : recording.lock()->getTracks()) {
            Find(recording.lock(), track.lock());
        }
    }
}

void Workload::Find(const RecordingPtr& recording, const TrackPtr& track) {
    const auto life = std::find_if(lives_.begin(), lives_.end(),
                                   [&](const TrackLife& each) { return each.id == track->getId(); });
    if (life == lives_.end()) {
        return; // The making of it failed or was cut short.
    }
    auto open = std::make_unique<OpenTrack>();
    open->number = static_cast<unsigned int>(life - lives_.begin());
    open->recording = recording;
    open->track = track;
    for (unsigned int index = 0; index != track->size(); ++index) {
        std::string info;
        open->present.push_back(NumberAt(*track, index, info));
    }
    Connect(*open);
    tracks_.push_back(std::move(open));
}

void Workload::Adopt() {
    for (TrackLife& life : lives_) {
        const auto found = std::find_if(tracks_.begin(), tracks_.end(),
                                        [&](const auto& each) { return each->track->getId() == life.id; });
        if (found == tracks_.end()) {
            life.erased = std::min(life.erased, getMoment_());
            life.id = life.made == RecordLife::kNever ? 0 : life.id; // The next one may get its number.
            continue;
        }
        OpenTrack& open = **found;
        if (life.made == RecordLife::kNever) { // Its format may be missing.
            open.recording->setInfo(life.recordingInfo);
            open.track->setFormat(FormatOf(open.number));
            life.made = getMoment_();
        }
        life.eraseBegun = RecordLife::kNever; // Whether it was done is known now: it was not.
        AdoptRecords(open, life);
        SetInfo(open); // Nobody can say which holds.
    }
}

void Workload::AdoptRecords(OpenTrack& open, TrackLife& life) {
    auto index = open.present.begin();
    for (unsigned int number = 0; number != life.records.size(); ++number) {
        RecordLife& record = life.records[number];
        if (index == open.present.end() || *index != number) {
            record.erased = std::min(record.erased, getMoment_());
            continue;
        }
        if (record.durable == RecordLife::kNever) { // Its text may be lost.
            NumberAt(*open.track, static_cast<unsigned int>(index - open.present.begin()), record.info);
            record.durable = getMoment_();
        }
        record.eraseBegun = RecordLife::kNever;
        ++index;
    }
}

void Workload::Connect(OpenTrack& open) {
    open.connection = open.track->connectToEraseRangeSignal(
        [this, number = open.number](unsigned int first, unsigned int last) {
            OnErase(number, first, last);
        });
}

void Workload::Step() {
    OpenTrack& open = *tracks_[Random(static_cast<unsigned int>(tracks_.size()))];
    const unsigned int kind = Random(1000);
    if (kind < 700) {
        Append(open);
    } else if (kind < 800) {
        Compare(open, Random(static_cast<unsigned int>(open.present.size()) + 1));
    } else if (kind < 850) {
        Do([this] { store_->Commit(); });
    } else if (kind < 900) {
        Sync();
    } else if (kind < 940) {
        Do([this] { store_->Keep(); });
    } else if (kind < 965) {
        SetInfo(open);
    } else if (kind < 990) {
        Erase(open);
    } else if (tracks_.size() < kMostTracks) {
        NewTrack();
    } else {
        EraseTrack(open);
    }
    FinishErasures();
}

void Workload::Reopen() {
    Sync();
    std::map<unsigned int, std::pair<std::vector<unsigned int>, std::string>> before;
    for (const auto& open : tracks_) {
        before[open->number] = {open->present, open->info};
    }
    tracks_.clear();
    store_.reset();
    Open();
    for (const auto& open : tracks_) {
        open->info = before[open->number].second;
        if (before[open->number].first != open->present) {
            Fault("track " + std::to_string(open->number) + " has other records");
        }
        before.erase(open->number);
    }
    if (!before.empty()) {
        Fault("tracks are lost");
    }
    for (const std::string& fault : CheckAt(getMoment_(), *store_, lives_)) {
        Fault(fault);
    }
}

// Now and then in a recording of its own.
void Workload::NewTrack() {
    const auto number = static_cast<unsigned int>(lives_.size());
    auto open = std::make_unique<OpenTrack>();
    open->number = number;
    std::string info;
    if (tracks_.empty() || (store_->GetRecordings().size() < 3 && Random(3) == 0)) {
        info = "recording of " + std::to_string(number);
        open->recording = store_->NewRecording();
        open->recording->setInfo(info);
    } else {
        open->recording = tracks_.front()->recording;
        open->recording->getInfo(info);
    }
    open->track = open->recording->newTrack(number % 4 == 1 ? TrackClass::Sparse : TrackClass::Bulk);
    open->track->setFormat(FormatOf(number));
    lives_.push_back({open->track->getId(), info, getMoment_(), RecordLife::kNever, RecordLife::kNever, {}});
    Connect(*open);
    tracks_.push_back(std::move(open));
}

void Workload::EraseTrack(OpenTrack& open) {
    TrackLife& life = lives_[open.number];
    life.eraseBegun = getMoment_();
    Do([&] { open.recording->eraseTrack(life.id); });
    life.erased = getMoment_();
    FinishErasures();
    tracks_.erase(
        std::find_if(tracks_.begin(), tracks_.end(), [&open](const auto& t) { return t.get() == &open; }));
}

void Workload::Append(OpenTrack& open) {
    std::vector<RecordLife>& records = lives_[open.number].records;
    const TestRecord next{open.number, static_cast<unsigned int>(records.size())};
    const auto blobs = next.Blobs();
    BlobRecord record;
    for (const auto& blob : blobs) {
        record.add(Blob(blob.data(), blob.size()));
    }
    records.push_back({open.info, RecordLife::kNever, RecordLife::kNever, RecordLife::kNever});
    *open.track << record;
    open.present.push_back(next.number);
    Compare(open, static_cast<unsigned int>(open.present.size()) - 1);
}

void Workload::SetInfo(OpenTrack& open) {
    open.info = "info " + std::to_string(random_());
    open.track->setInfo(open.info);
}

// A prefix, a suffix, everything or something in between.
void Workload::Erase(OpenTrack& open) {
    const auto size = static_cast<unsigned int>(open.present.size());
    unsigned int first = Random(size + 1);
    unsigned int last = first + Random(size + 1 - first);
    switch (Random(6)) {
        case 0:
            first = 0;
            break;
        case 1:
            last = size + Random(3); // It is cut to the size.
            break;
        case 2:
            first = 0;
            last = size;
            break;
        default:
            last = std::min(last, first + 3);
            break;
    }
    Do([&] { open.track->eraseRange(first, last); });
}

void Workload::Sync() {
    Do([this] { store_->Sync(); });
    const std::size_t now = getMoment_();
    for (TrackLife& life : lives_) {
        for (auto record = life.records.rbegin(); record != life.records.rend(); ++record) {
            if (record->durable != RecordLife::kNever) {
                break; // And so are all before it.
            }
            record->durable = record->erased == RecordLife::kNever ? now : record->durable;
        }
    }
}

void Workload::Do(const std::function<void()>& action) {
    if (interrupted_ == nullptr) {
        action();
        return;
    }
    std::future<void> other;
    const std::array<std::function<void()>, 3> others{[this] { store_->Commit(); },
                                                      [this] { store_->Sync(); }, [this] { store_->Keep(); }};
    const auto& what = others[Random(3)];
    interrupted_->beforeChange = [&, place = Random(12), thread = std::this_thread::get_id()]() mutable {
        if (std::this_thread::get_id() == thread && place-- == 0) {
            other = std::async(std::launch::async, what);
            other.wait_for(std::chrono::milliseconds(2));
        }
    };
    std::exception_ptr failure;
    try {
        action();
    } catch (const std::exception&) {
        failure = std::current_exception();
    }
    if (other.valid()) {
        other.wait();
    }
    interrupted_->beforeChange = [] {};
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
    if (other.valid()) {
        other.get();
    }
}

// The records must still be readable.
void Workload::OnErase(unsigned int number, unsigned int first, unsigned int last) {
    const std::lock_guard<std::mutex> lock(erasingMutex_);
    const auto open = std::find_if(tracks_.begin(), tracks_.end(),
                                   [number](const auto& track) { return track->number == number; });
    if (open == tracks_.end() || last > (*open)->present.size() || first >= last) {
        Fault("an erasure of " + std::to_string(first) + " to " + std::to_string(last) + " was told");
        return;
    }
    std::vector<unsigned int>& present = (*open)->present;
    Compare(**open, first);
    Compare(**open, last - 1);
    const std::size_t now = getMoment_();
    for (unsigned int index = first; index != last; ++index) {
        lives_[number].records[present[index]].eraseBegun = now;
        erasing_.emplace_back(number, present[index]);
    }
    const auto begin = present.begin();
    present.erase(begin + static_cast<std::ptrdiff_t>(first), begin + static_cast<std::ptrdiff_t>(last));
    throw std::runtime_error("a slot that fails");
}

void Workload::FinishErasures() {
    const std::size_t now = getMoment_();
    for (const auto& [track, number] : erasing_) {
        lives_[track].records[number].erased = now;
    }
    erasing_.clear();
}

// The records around one that have its text.
std::pair<unsigned int, unsigned int> Workload::InfoRange(const OpenTrack& open, unsigned int index) const {
    const auto info = [&](unsigned int at) { return lives_[open.number].records[open.present[at]].info; };
    std::pair<unsigned int, unsigned int> range{index, index};
    while (range.first > 0 && info(range.first - 1) == info(index)) {
        --range.first;
    }
    while (range.second + 1 < open.present.size() && info(range.second + 1) == info(index)) {
        ++range.second;
    }
    return range;
}

// At the end nothing may be read.
void Workload::Compare(OpenTrack& open, unsigned int index) {
    const bool inside = index < open.present.size();
    BlobRecord record;
    bool outOfRange = false;
    std::string info;
    std::pair<unsigned int, unsigned int> range;
    open.track->lock();
    open.track->seekg(index);
    try {
        open.track->getInfo(info);
        range = open.track->getInfoRange();
        *open.track >> record;
    } catch (const std::out_of_range&) {
        outOfRange = true;
    } catch (const std::exception& error) {
        Fault(error.what());
    }
    open.track->unlock();
    if (outOfRange == inside) {
        Fault("track " + std::to_string(open.number) + " ends at the wrong index");
    } else if (inside && range != InfoRange(open, index)) {
        Fault(Name(open.number, open.present[index]) + " has another range of its info");
    } else if (inside && (!Holds(record, {open.number, open.present[index]}) ||
                          info != lives_[open.number].records[open.present[index]].info)) {
        Fault(Name(open.number, open.present[index]) + " is not what was appended");
    }
}

std::vector<TrackLife> LivesAt(std::size_t moment, std::vector<TrackLife> lives) {
    const auto forget = [moment](std::size_t& each) { each = each > moment ? RecordLife::kNever : each; };
    for (TrackLife& life : lives) {
        forget(life.made);
        forget(life.eraseBegun);
        forget(life.erased);
        for (RecordLife& record : life.records) {
            forget(record.durable);
            forget(record.eraseBegun);
            forget(record.erased);
        }
    }
    return lives;
}

std::vector<std::string> CheckAt(std::size_t moment, Store& store, const std::vector<TrackLife>& lives) {
    std::vector<std::string> faults;
    std::map<unsigned int, std::pair<boost::shared_ptr<Recording>, boost::shared_ptr<Track>>> byId;
    for (const auto& recording : store.GetRecordings()) {
        for (const auto& track : recording.lock()->getTracks()) {
            byId[track.lock()->getId()] = {recording.lock(), track.lock()};
        }
    }
    for (unsigned int number = 0; number != lives.size(); ++number) {
        const TrackLife& life = lives[number];
        const auto found = byId.find(life.id);
        if (found == byId.end()) {
            if (moment >= life.made && moment <= life.eraseBegun) {
                faults.push_back("track " + std::to_string(number) + " is lost");
            }
        } else if (moment >= life.erased) {
            faults.push_back("track " + std::to_string(number) + " came back");
        } else {
            const auto& [recording, track] = found->second;
            std::string info;
            recording->getInfo(info);
            if (moment >= life.made &&
                (info != life.recordingInfo || track->getFormat() != FormatOf(number))) {
                faults.push_back("track " + std::to_string(number) + " has another format or recording");
            }
            CheckTrack(moment, number, *track, life, faults);
        }
    }
    return faults;
}
