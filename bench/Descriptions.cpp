#include "Descriptions.h"

void Descriptions::AddLine(const std::vector<std::string>& types, const std::string& headSettings) {
    const std::string pipeline = "pipeline" + std::to_string(lines_++);
    const auto plugin = [&](size_t number) { return pipeline + "-plugin" + std::to_string(number); };
    names_ += (names_.empty() ? "" : ", ") + pipeline;
    groups_ += "[" + pipeline + "]\nt.pipeline.head = " + plugin(0) + "\n";
    for (size_t i = 0; i != types.size(); ++i) {
        groups_ += "[" + plugin(i) + "]\nt.plugin.type = " + types[i] + "\n" + (i == 0 ? headSettings : "");
        if (i + 1 != types.size()) {
            groups_ += "t.pipeline.next = " + plugin(i + 1) + "\n";
        }
    }
}

std::vector<std::string> LineOf(const std::string& head, unsigned int count, const std::string& middle,
                                const std::string& end) {
    std::vector<std::string> types(count + 2, middle);
    types.front() = head;
    types.back() = end;
    return types;
}
