#include "calvane/plugins/FileSink.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <memory>

#include "calvane/config/IPluginConfiguration.h"
#include "calvane/config/PluginManager.h"
#include "calvane/graph/SettingException.h"
#include "quarn/core/Logger.h"
#include "quarn/core/StringUtil.h"
#include "quarn/osa/Exception.h"
#include "quarn/osa/FormatText.h"

namespace quarn::calvane {

namespace {

const char* const kFileNameKey = "filename";
const char* const kOpenModeKey = "openmode";

std::ios_base::openmode ReadOpenMode(const IPluginConfiguration& config) {
    try {
        return FileSink::ParseOpenMode(config.GetStringOrDefault(kOpenModeKey, "truncate"));
    } catch (const osa::Exception& error) {
        throw SettingException(config.GetPluginName(), kOpenModeKey, error.what());
    }
}

PipelinePlugin* CreateFileSink(CalvaneEnv*, const IPluginConfiguration& config) {
    return new FileSink(config);
}

const PluginManager::PluginAutoRegister kRegistration("FileSink", &CreateFileSink, R"(
[plugin]
summary = Writes the bytes of every buffer to one file, one behind the other
inputs = default

[setting filename]
kind = path
required = yes
summary = the file to write; its folder must exist

[setting openmode]
kind = choice
choices = truncate, append
default = truncate
summary = whether an existing file is emptied or continued

[setting start.count]
kind = integer
default = 0
range = -2147483648 to 2147483647
summary = write only buffers behind this number, counted from 1; see end.count

[setting end.count]
kind = integer
default = 0
range = -2147483648 to 2147483647
summary = write only buffers before this number; equal to start.count: write all
)");

} // namespace

FileSink::FileSink(const IPluginConfiguration& config)
    : BasicSinkPlugin(config),
      fileName_(config.GetStringOrDefault(kFileNameKey, "")),
      openMode_(ReadOpenMode(config)),
      startCount_(config.GetIntOrDefault("start.count", 0)),
      endCount_(config.GetIntOrDefault("end.count", 0)) {
    if (fileName_.empty()) {
        ErrorInSetting(kFileNameKey, std::string("You must provide a valid setting for ") + kFileNameKey);
    }
}

FileSink::~FileSink() {
    Close();
}

void FileSink::OnBuffer(const Sink*, Buffer* buffer) {
    const std::unique_ptr<Buffer> owned(buffer);
    if (IsInRange()) {
        Write(*owned);
    }
}

std::ios_base::openmode FileSink::ParseOpenMode(const std::string& mode) {
    const std::string lower = core::StringUtil::ToLower(mode);
    if (lower == "truncate") {
        return std::ios_base::out | std::ios_base::trunc | std::ios_base::binary;
    }
    if (lower == "append") {
        return std::ios_base::out | std::ios_base::app | std::ios_base::binary;
    }
    throw osa::Exception("Invalid openmode: " + mode);
}

// Counts the buffer. Both bounds are exclusive, and equal bounds mean no range.
bool FileSink::IsInRange() {
    ++bufferCount_;
    if (startCount_ == endCount_ || (startCount_ < bufferCount_ && bufferCount_ < endCount_)) {
        return true;
    }
    if (bufferCount_ > endCount_) {
        Close();
    }
    return false;
}

void FileSink::Write(const Buffer& buffer) {
    OpenUnlessOpen();
    std::size_t done = 0;
    while (done < buffer.GetLength()) {
        const ssize_t written = write(file_, buffer.GetData() + done, buffer.GetLength() - done);
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno != EINTR) {
            logger->Error("Writing %u bytes to %s failed: %s", buffer.GetLength(), fileName_.c_str(),
                          osa::ErrnoText(errno).c_str());
            throw osa::Exception("Failed to write file " + fileName_);
        }
    }
}

void FileSink::OpenUnlessOpen() {
    if (file_ < 0) {
        logger->Information("Opening file %s", fileName_.c_str());
        constexpr mode_t kForAll = 0666; // As far as the process's mask allows.
        const int how = (openMode_ & std::ios_base::app) != 0 ? O_APPEND : O_TRUNC;
        file_ = open(fileName_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | how, kForAll);
    }
    if (file_ < 0) {
        throw osa::Exception("Failed to open file " + fileName_);
    }
}

void FileSink::Close() {
    if (file_ >= 0 && close(file_) != 0) {
        logger->Error("Closing %s failed: %s", fileName_.c_str(), osa::ErrnoText(errno).c_str());
    }
    file_ = -1;
}

} // namespace quarn::calvane
