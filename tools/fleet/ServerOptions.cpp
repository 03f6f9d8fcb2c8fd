#include "fleet/ServerOptions.h"

#include <CLI/CLI.hpp>

namespace calvane_fleet {

CLI::Option* AddServerOptions(CLI::App& program, NatsOptions& nats, const std::string& certificates) {
    CLI::Option* const server =
        program
            .add_option("--server", nats.servers, "URLs of NATS servers; as CALVANE_FLEET says without it")
            ->type_name("URL")
            ->delimiter(',')
            ->envname("CALVANE_FLEET");
    program.add_option("--domain", nats.domain, "The JetStream domain, through a leaf node")
        ->type_name("NAME");
    program.add_option("--credentials", nats.credentialsFile, "The user's token and seed")->type_name("FILE");
    program.add_option("--user-file", nats.userFile, "Has USER:PASSWORD or a token")->type_name("FILE");
    program.add_option("--tls-ca", nats.caFile, "Trusted certificates (PEM)")->type_name("FILE");
    CLI::Option* const key =
        program.add_option(certificates + "-key", nats.keyFile, "The key of this client's certificate (PEM)")
            ->type_name("FILE");
    CLI::Option* const certificate = program
                                         .add_option(certificates + "-cert", nats.certificateFile,
                                                     "This client's certificate for NATS servers (PEM)")
                                         ->type_name("FILE");
    certificate->needs(key);
    key->needs(certificate);
    return server;
}

} // namespace calvane_fleet
