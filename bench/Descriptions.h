#pragma once

#include <string>
#include <vector>

#include "quarn/core/IniFile.h"

/// The text of a description of pipelines that are lines: each plugin has one successor.
class Descriptions {
public:
    /// Adds a pipeline of plugins of these types, from the head to the end. `headSettings`: further lines for
    /// the group of the head.
    void AddLine(const std::vector<std::string>& types, const std::string& headSettings = "");
    std::string GetText() const { return "[calvane]\nt.pipelines = " + names_ + "\n" + groups_; }
    quarn::core::IniFile Parse() const { return quarn::core::IniFile::FromText(GetText()); }

private:
    std::string names_;
    std::string groups_;
    unsigned int lines_ = 0;
};

/// The types of a line from `head` over `count` times `middle` to `end`.
std::vector<std::string> LineOf(const std::string& head, unsigned int count, const std::string& middle,
                                const std::string& end);
