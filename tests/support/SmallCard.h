#pragma once

#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "support/TempFolder.h"

/// A small ext4 on a loop device, where the machine allows it.
class SmallCard {
public:
    /// `reserved`: percent for root. `backing`: the folder of the image, if not the card's own.
    SmallCard(std::uint64_t bytes, int reserved, const std::string& backing = "")
        : image_((backing.empty() ? folder_.Path() : backing) + "/image") {
        std::ofstream(image_).close();
        std::filesystem::resize_file(image_, bytes);
        std::filesystem::create_directory(Path());
        Run("mkfs.ext4 -q -F -m " + std::to_string(reserved) + " " + image_);
        if (why_.empty()) {
            Mount();
        }
    }
    ~SmallCard() { Pull(); }
    SmallCard(const SmallCard&) = delete;
    SmallCard& operator=(const SmallCard&) = delete;

    void Mount() {
        Run("mount -o loop " + image_ + " " + Path());
        isMounted_ = why_.empty();
    }
    /// As the kernel does when the file system finds an error.
    void MakeReadOnly() { Run("mount -o remount,abort " + Path()); }
    /// Those who have files on it keep them.
    void Pull() {
        if (isMounted_) {
            umount2(Path().c_str(), MNT_DETACH);
            isMounted_ = false;
        }
    }

    std::string Path() const { return folder_.Path("mounted"); }
    /// Why there is none; empty when there is one.
    const std::string& Why() const { return why_; }
    /// The share that is used, as a writer without root's reserve sees it.
    double Percent() const {
        struct statvfs figures {};
        if (statvfs(Path().c_str(), &figures) != 0) {
            throw std::runtime_error("cannot look at " + Path());
        }
        const auto used = static_cast<double>(figures.f_blocks - figures.f_bfree);
        return 100 * used / (used + static_cast<double>(figures.f_bavail));
    }

private:
    void Run(const std::string& command) {
        const std::string out = folder_.Path("out");
        if (std::system((command + " >" + out + " 2>&1").c_str()) != 0) { // NOLINT: a test's own words.
            why_ = "\"" + command + "\" fails: " + folder_.Read("out");
        }
    }

    TempFolder folder_;
    const std::string image_;
    std::string why_;
    bool isMounted_ = false;
};
