#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "api/Login.h"
#include "command_line/ExitStatus.h"
#include "command_line/RunProgram.h"
#include "fleet/ServerOptions.h"

namespace calvane_web {
namespace {

void DefineFleet(CLI::App& program, CommandLine& line) {
    CLI::Option* const fleet = program.add_flag(
        "--fleet", line.isOfFleet,
        "Show what the devices of a fleet have copied into its streams, and not this device");
    line.nats.name = "calvane-web";
    // --tls-cert and --tls-key are the page's own.
    CLI::Option* const server = calvane_fleet::AddServerOptions(program, line.nats, "--server-tls");
    for (const char* const name :
         {"--domain", "--credentials", "--user-file", "--tls-ca", "--server-tls-cert", "--server-tls-key"}) {
        program.get_option(name)->needs(fleet);
    }
    program.callback([&line, server] {
        if (line.isOfFleet && server->count() == 0) {
            throw CLI::RequiredError("--server with --fleet");
        }
    });
}

void Define(CLI::App& program, CommandLine& line) {
    WebOptions& options = line.web;
    program.add_option("--listen", options.listen, "Where to listen; port 0 for any free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    calvane_program::AddBusOption(program);
    program
        .add_option("--tls-cert", options.certificateFile,
                    "The certificate, with those that lead to the root (PEM)")
        ->type_name("FILE");
    program.add_option("--tls-key", options.keyFile, "The certificate's key (PEM)")->type_name("FILE");
    program
        .add_option("--password-file", options.passwordFile,
                    "Ask for the password whose hash is in this file, which others cannot read")
        ->type_name("FILE");
    program.add_flag("--behind-proxy", options.behindProxy,
                     "Listen on any address without TLS and password: a reverse proxy has both");
    program.add_flag("--hash-password", line.hashPassword,
                     "Read a password from standard input, print its hash for the password file, and end");
    program.add_option("--page", options.page, "The page's files; as CALVANE_WEB_PAGE says without it")
        ->type_name("DIR");
    DefineFleet(program, line);
    program.footer(
        "Answers what calvane-recording answers, and the recorded media, to a browser. It asks the "
        "recorder's services and needs no right to the card. With --fleet it asks the streams of a fleet, as "
        "calvane-fleet does.\n"
        "Anything but an address of this machine takes TLS and a password, or --behind-proxy.\n"
        "Exit status: 0 done, 1 failed, 2 bad command line.\n"
        "Examples:\n"
        "  calvane-web\n"
        "  calvane-web --hash-password > password && chmod 600 password\n"
        "  calvane-web --listen 0.0.0.0:8443 --tls-cert cert.pem --tls-key key.pem --password-file password\n"
        "  calvane-web --fleet --server nats://hub:4222");
}

int PrintHash() {
    std::string password;
    std::getline(std::cin, password);
    std::cout << HashPassword(password) << "\n";
    return calvane_program::kDone;
}

} // namespace

int RunProgram(int argc, char** argv, int (*serve)(const CommandLine&, char**)) {
    return calvane_program::RunProgram(
        "calvane-web", "Serves a page that shows what the device has recorded.", argc, argv,
        [serve, argv](CLI::App& program) {
            const auto line = std::make_shared<CommandLine>();
            Define(program, *line);
            return [serve, argv, line] { return line->hashPassword ? PrintHash() : serve(*line, argv); };
        });
}

} // namespace calvane_web
