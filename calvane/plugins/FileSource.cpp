#include "calvane/plugins/FileSource.h"

#include <sys/stat.h>

#include <cerrno>

#include "calvane/config/IPluginConfiguration.h"
#include "calvane/config/PluginManager.h"
#include "calvane/runtime/CalvaneEnv.h"
#include "quarn/core/AllocatorProps.h"
#include "quarn/core/BufferPoolAllocator.h"
#include "quarn/core/Logger.h"
#include "quarn/osa/FormatText.h"

namespace quarn::calvane {

namespace {

const char* const kFileNameKey = "filename";
const char* const kBlockSizeKey = "buffer.blocksize.bytes";
const char* const kMaxCountKey = "buffer.maxcount";

// The stream opens a folder without a word and fails only when it reads.
bool IsFolder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

PipelinePlugin* CreateFileSource(CalvaneEnv* env, const IPluginConfiguration& config) {
    return new FileSource(env, config);
}

const PluginManager::PluginAutoRegister kRegistration("FileSource", &CreateFileSource, R"(
[plugin]
summary = Reads a file in blocks and pushes each as one buffer
outputs = -
generates = yes
limit = buffer.blocksize.bytes / 64 * buffer.maxcount <= 67108863, The memory of all buffers must stay below 4 GiB

[setting filename]
kind = path
required = yes
summary = the file to read; it is opened when the plugin is made

[setting loop]
kind = flag
default = 0
summary = start again at the end of the file

[setting buffer.blocksize.bytes]
kind = integer
unit = bytes
default = 1024
range = 1 to 2147483647
summary = size of one block; the last one before the end may be shorter

[setting buffer.total]
kind = integer
unit = buffers
default = -1
range = -2147483648 to 2147483647
summary = how many blocks to read; below 0: no limit

[setting buffer.maxcount]
kind = integer
unit = buffers
default = 5
range = 1 to 2147483647
summary = how many buffers may be on their way at once
)");

} // namespace

FileSource::FileSource(CalvaneEnv* env, const IPluginConfiguration& config)
    : BasicSourcePlugin(config),
      loop_(config.GetIntOrDefault("loop", 0) != 0),
      blockSize_(config.GetIntOrDefault(kBlockSizeKey, 1024)),
      remaining_(config.GetIntOrDefault("buffer.total", -1)) {
    // All settings are read before the first can be found wrong, so that whoever asks learns of all.
    fileName_ = config.GetStringOrDefault(kFileNameKey, "");
    const int maxCount = config.GetIntOrDefault(kMaxCountKey, 5);
    if (blockSize_ <= 0) {
        ErrorInSetting(kBlockSizeKey, "Invalid blocksize");
    }
    Open(fileName_);
    core::IMemoryAllocator* const parent = env->GetDefaultAllocator(core::AllocatorProps::kAddressable);
    if (maxCount <= 0) {
        ErrorInSetting(kMaxCountKey, std::string("Invalid ") + kMaxCountKey);
    }
    allocator_ = env->AddPrivateAllocator(new core::BufferPoolAllocator(
        parent, static_cast<unsigned int>(blockSize_), static_cast<unsigned int>(maxCount), true));
}

FileSource::~FileSource() {
    try {
        stream_.reset();
    } catch (...) {
        logger->Error("Failed to dispose of stream");
    }
}

bool FileSource::OnGenerateBuffer(osa::TimeStruct&) {
    if (remaining_ == 0) {
        return false;
    }
    // Allocated in the argument, behind the memory of the buffer: no handle is lost when that runs out.
    std::unique_ptr<Buffer> buffer(
        new Buffer(allocator_->Allocate(static_cast<unsigned int>(blockSize_)), format_));
    stream_->read(reinterpret_cast<char*>(buffer->GetDataForWrite()), blockSize_);
    if (stream_->bad()) {
        logger->Error("Failed to read file %s: %s", fileName_.c_str(), osa::ErrnoText(errno).c_str());
    }
    buffer->Resize(static_cast<unsigned int>(stream_->gcount()));
    if (buffer->GetLength() != 0) {
        source->PushBuffer(buffer.release());
    }
    RewindAtEnd();
    if (remaining_ > 0) {
        --remaining_;
    }
    return stream_->good();
}

void FileSource::Open(const std::string& fileName) {
    if (fileName.empty()) {
        ErrorInSetting(kFileNameKey, std::string("You must provide a valid ") + kFileNameKey + " setting");
    }
    // Blocks of 8 KiB and more go straight from the file into the buffers; of smaller ones the stream reads several at once.
    stream_ = std::make_unique<std::ifstream>(fileName, std::ios_base::in | std::ios_base::binary);
    if (!*stream_ || IsFolder(fileName)) {
        stream_.reset();
        ErrorInSetting(kFileNameKey, "Failed to open file " + fileName);
    }
}

void FileSource::RewindAtEnd() {
    if (loop_ && stream_->eof() && !stream_->bad()) {
        stream_->clear();
        stream_->seekg(0);
    }
}

} // namespace quarn::calvane
