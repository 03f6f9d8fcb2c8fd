#include "support/Program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <iterator>
#include <sstream>

namespace {

void Redirect(int stream, const std::string& path) {
    dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), stream);
}

// The words that start a program of this build before its own name.
std::vector<std::string> Emulator() {
    std::istringstream words(CALVANE_EMULATOR);
    return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
}

} // namespace

Program::Program(const std::string& name, const std::vector<std::string>& arguments,
                 const std::string& folder) {
    const std::string path = name.find('/') == std::string::npos ? CALVANE_BIN_DIR "/" + name : name;
    const bool ofSystem = path.rfind("/usr/", 0) == 0;
    std::vector<std::string> words = ofSystem ? std::vector<std::string>() : Emulator();
    words.push_back(path);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> all;
    for (std::string& word : words) {
        all.push_back(word.data());
    }
    all.push_back(nullptr);
    child_ = fork();
    if (child_ == 0) {
        Redirect(STDOUT_FILENO, streams_.Path("out"));
        Redirect(STDERR_FILENO, streams_.Path("err"));
        if (chdir(folder.c_str()) == 0) {
            execvp(all[0], all.data());
        }
        _exit(127);
    }
}

Program::~Program() {
    if (child_ > 0) {
        Signal(SIGKILL);
        Wait();
    }
}

void Program::Signal(int number) const {
    kill(child_, number);
}

int Program::Wait() {
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
