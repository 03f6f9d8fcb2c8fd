#include "support/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

std::string NewOutput() {
    std::string pattern = testing::TempDir() + "calvane-output-XXXXXX";
    const int file = mkstemp(pattern.data());
    if (file < 0) {
        throw std::runtime_error("no temporary file at " + pattern);
    }
    close(file);
    return pattern;
}

std::string Content(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

void Redirect(const std::string& path, int stream) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, stream);
}

} // namespace

Program::Program(const std::string& name, const std::vector<std::string>& arguments,
                 const std::string& folder)
    : output_(NewOutput()) {
    const std::string path = name.find('/') == std::string::npos ? CALVANE_BIN_DIR "/" + name : name;
    std::vector<char*> all{const_cast<char*>(path.c_str())};
    for (const std::string& argument : arguments) {
        all.push_back(const_cast<char*>(argument.c_str()));
    }
    all.push_back(nullptr);
    child_ = fork();
    if (child_ == 0) {
        Redirect(output_, STDOUT_FILENO);
        Redirect(output_ + ".err", STDERR_FILENO);
        if (chdir(folder.c_str()) == 0) {
            execv(path.c_str(), all.data());
        }
        _exit(127);
    }
}

Program::~Program() {
    if (child_ > 0) {
        kill(child_, SIGKILL);
        Wait();
    }
    unlink(output_.c_str());
    unlink((output_ + ".err").c_str());
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

std::string Program::Out() const {
    return Content(output_);
}

std::string Program::Err() const {
    return Content(output_ + ".err");
}
