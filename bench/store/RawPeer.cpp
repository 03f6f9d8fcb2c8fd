// The least that can be done: one file that grows, and a sync.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Peer.h"

namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class RawPeer : public Peer {
public:
    RawPeer(const std::string& folder, bool isNew)
        : file_(open((folder + "/raw").c_str(), O_RDWR | O_CLOEXEC | (isNew ? O_CREAT | O_EXCL : 0), 0644)) {
        if (file_ < 0) {
            Fail("open");
        }
    }
    ~RawPeer() override { close(file_); }

    void Append(const InputRecord& record) override {
        pending_.insert(pending_.end(), record.header, record.header + InputRecord::kHeaderBytes);
        pending_.insert(pending_.end(), record.body, record.body + record.bodyBytes);
    }
    void Commit() override {
        if (write(file_, pending_.data(), pending_.size()) != static_cast<ssize_t>(pending_.size())) {
            Fail("write");
        }
        pending_.clear();
        if (fdatasync(file_) != 0) {
            Fail("fdatasync");
        }
    }
    void ReadHeader(unsigned, std::uint32_t, Content&) override {
        throw std::runtime_error("a raw file has no index");
    }
    void Read(const InputRecord& wanted, std::vector<Span>& out) override {
        record_.resize(wanted.Bytes());
        if (read(file_, record_.data(), record_.size()) != static_cast<ssize_t>(record_.size())) {
            Fail("read");
        }
        out = {{record_.data(), record_.size()}};
    }

private:
    const int file_;
    Content pending_;
    Content record_;
};

} // namespace

std::unique_ptr<Peer> MakeRawPeer(const std::string& folder, bool isNew) {
    return std::make_unique<RawPeer>(folder, isNew);
}
