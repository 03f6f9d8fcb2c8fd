#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "Source.h"
#include "media_export/Export.h"
#include "media_export/OutputFile.h"

namespace calvane_recording {
namespace {

using calvane_export::ExportOptions;
using calvane_export::OutputDescriptor;
using calvane_export::Part;

/// A player that reads from a pipe.
class Player {
public:
    explicit Player(const std::string& program);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    int Pipe() const { return pipe_; }
    /// Ends the pipe and waits until it has played; the exit status.
    int Wait();

private:
    void Close();

    int pipe_ = -1;
    pid_t process_ = -1;
};

Player::Player(const std::string& program) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "Cannot make a pipe");
    }
    pipe_ = ends[1];
    std::vector<std::string> words{program};
    const std::string name = program.substr(program.rfind('/') + 1);
    if (name == "ffplay") {
        words.insert(words.end(), {"-hide_banner", "-loglevel", "warning", "-autoexit"});
    }
    words.emplace_back("-");
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    posix_spawnattr_t attributes; // Signals have their ordinary effect on the player.
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t broken;
    sigemptyset(&none);
    sigemptyset(&broken);
    sigaddset(&broken, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &broken);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error =
        posix_spawnp(&process_, program.c_str(), &actions, &attributes, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(ends[0]);
    if (error != 0) {
        process_ = -1;
        Close();
        throw std::system_error(error, std::generic_category(), "Cannot start the player " + program);
    }
}

Player::~Player() {
    Wait();
}

void Player::Close() {
    if (pipe_ >= 0) {
        close(pipe_);
        pipe_ = -1;
    }
}

int Player::Wait() {
    Close();
    int status = 0;
    if (process_ > 0) {
        while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
        }
        process_ = -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// What was played, unless the player ended first, as its users do.
std::optional<Part> WriteTo(int descriptor, const Source& source, const ExportOptions& options) {
    OutputDescriptor output(descriptor);
    try {
        return ExportPart(source.Records(), output, options);
    } catch (const std::system_error& problem) {
        if (problem.code().value() == EPIPE) {
            return std::nullopt;
        }
        throw;
    }
}

} // namespace

void Play(const MediaRun& run) {
    const std::string& program = run.options.player;
    if (program.empty() && isatty(STDOUT_FILENO) == 1) {
        throw std::invalid_argument(
            "Standard output is a terminal: say --player, or write to a player with "
            "| ffplay -");
    }
    const Source source(run);
    ExportOptions options = source.Options();
    options.container = calvane_export::Container::Matroska;
    std::optional<Part> part;
    int status = 0;
    if (program.empty()) {
        part = WriteTo(STDOUT_FILENO, source, options);
    } else {
        Player player(program);
        part = WriteTo(player.Pipe(), source, options);
        status = player.Wait();
    }
    if (status != 0) {
        throw std::runtime_error(program + " ended with the status " + std::to_string(status));
    }
    if (part && part->change) {
        throw std::runtime_error(std::string("Played only until the ") + NameOf(part->change->track) +
                                 " changes at " + TimeText(part->change->time, run.zone) +
                                 ": play again from then on");
    }
    if (part) {
        RequireWhole(part->losses);
    }
}

} // namespace calvane_recording
