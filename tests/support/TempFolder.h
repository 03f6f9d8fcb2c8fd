#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

/// A folder that exists for one test.
class TempFolder {
public:
    TempFolder() {
        std::string pattern = testing::TempDir() + "calvane-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary folder at " + pattern);
        }
        path_ = pattern;
    }
    ~TempFolder() { std::filesystem::remove_all(path_); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string Path(const std::string& name = {}) const { return name.empty() ? path_ : path_ + "/" + name; }
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(Path(name), std::ios_base::binary) << content;
        return Path(name);
    }
    std::string Read(const std::string& name) const {
        std::ostringstream content;
        content << std::ifstream(Path(name), std::ios_base::binary).rdbuf();
        return content.str();
    }
    bool Has(const std::string& name) const { return std::filesystem::exists(Path(name)); }

private:
    std::string path_;
};
