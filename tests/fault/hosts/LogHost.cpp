// Logs 5000 lines of some 100 bytes and ends.

#include <string>

#include "quarn/core/Logger.h"

int main() {
    for (int line = 0; line != 5000; ++line) {
        quarn::core::Logger::GetLogger("host")->Error("%s", std::string(50, 'x').c_str());
    }
    return 0;
}
