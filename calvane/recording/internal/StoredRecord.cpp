#include "calvane/recording/internal/StoredRecord.h"

#include <cstring>
#include <stdexcept>

namespace quarn::calvane {

using drenn::multi_track_recorder::BlobRecord;
using drenn::multi_track_recorder::Track;

namespace {

constexpr const char* kParseError = "Parse error in recorded data";

void parseHeader(const drenn::multi_track_recorder::Blob& blob, RecordHeader& header) {
    if (blob.size() != sizeof(header)) {
        throw std::runtime_error(kParseError);
    }
    std::memcpy(&header, blob.data(), sizeof(header));
}

} // namespace

void appendRecord(Track& track, const RecordHeader& header, const void* data, std::size_t size) {
    BlobRecord record;
    record.add({&header, sizeof(header)});
    record.add({data, size});
    track << record;
}

bool splitRecord(const BlobRecord& record, const unsigned char*& data, unsigned int& size,
                 RecordHeader& header) {
    if (record.blobs().size() != 2) {
        return false;
    }
    parseHeader(record.blobs()[0], header);
    data = record.blobs()[1].data();
    size = static_cast<unsigned int>(record.blobs()[1].size());
    return true;
}

RecordHeader readRecordHeader(const Track& track, unsigned int index) {
    return recordHeaderOf(track.getLeading(index));
}

RecordHeader recordHeaderOf(const Track::Leading& leading) {
    RecordHeader header;
    parseHeader({leading.bytes.data(), leading.firstBlobBytes}, header);
    return header;
}

StoredRecord::StoredRecord(Track& track, unsigned int index) {
    track.seekg(index);
    track >> _record;
    if (!splitRecord(_record, _data, _size, _header)) {
        throw std::runtime_error(kParseError);
    }
}

} // namespace quarn::calvane
