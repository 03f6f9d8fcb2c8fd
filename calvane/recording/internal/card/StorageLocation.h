#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace quarn::calvane {

/// Why there is no recording, as RecordingManager::_recordingDisabledReason has it.
enum class DisabledReason : std::int32_t {
    None = 0,
    NoCard = 4,      ///< There is none, or it cannot be listed.
    ForeignData = 5, ///< On the card.
    NotOpened = 6    ///< The recording could not be opened.
};

/// Of the card's file system, in bytes; 0 when it cannot be asked.
struct CardSpace {
    std::uint64_t card = 0;   ///< As a writer without root's reserve sees it.
    std::uint64_t usable = 0; ///< What can be written before the oldest data is erased.

    /// Whether the oldest data makes room for what is recorded. The store erases a segment at a time, and holds back room
    /// for what it has in memory.
    bool isFull() const;
};

/// `root`: where it is mounted.
CardSpace lookAtCard(const std::string& root);

/// Where the card is mounted, and what may lie on it: two folders of the store, and what the file system makes.
class StorageLocation {
public:
    /// The share of the card in percent that is used before the oldest data is erased.
    static constexpr std::uint32_t kMostPercent = 98;

    class Problem : public std::runtime_error {
    public:
        Problem(DisabledReason reason, const std::string& text) : std::runtime_error(text), _reason(reason) {}
        DisabledReason reason() const { return _reason; }

    private:
        DisabledReason _reason;
    };

    /// A slash is added to the end of `root` if there is none.
    explicit StorageLocation(const std::string& root);

    const std::string& root() const { return _root; }
    std::string storageFolder() const { return _root + "data"; }
    std::string databaseFolder() const { return _root + "database"; }

    /// Throws Problem unless the card is there and holds nothing but recordings.
    void validate() const;
    void validateEntry(const std::filesystem::directory_entry& entry) const;

private:
    bool isOfStore(const std::filesystem::directory_entry& entry) const;

    std::string _root;
};

} // namespace quarn::calvane
