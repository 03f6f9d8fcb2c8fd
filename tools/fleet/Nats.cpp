#include "fleet/Nats.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <future>
#include <iterator>
#include <utility>

namespace calvane_fleet {
namespace {

using nlohmann::json;

struct OptionsDestroyer {
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
};
using OptionsPtr = std::unique_ptr<natsOptions, OptionsDestroyer>;

constexpr std::int64_t kConnectTimeout = 2000;
constexpr std::int64_t kWriteDeadline = 5000;
constexpr std::int64_t kPingInterval = 2000;
constexpr int kMostPings = 3;
constexpr int kBufferBytes = 64 * 1024;

void RequireFile(const std::string& path, const char* what) {
    if (!std::ifstream(path)) {
        throw NatsError(std::string("Cannot read the ") + what + " " + path);
    }
}

void SetUser(natsOptions& options, const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line) || line.empty()) {
        throw NatsError("Cannot read a user and a password, or a token, from " + path);
    }
    const std::size_t colon = line.find(':');
    Check(colon == std::string::npos ? natsOptions_SetToken(&options, line.c_str())
                                     : natsOptions_SetUserInfo(&options, line.substr(0, colon).c_str(),
                                                               line.substr(colon + 1).c_str()),
          "Cannot use " + path);
}

void SetTls(natsOptions& target, const NatsOptions& options) {
    if (!options.caFile.empty()) {
        RequireFile(options.caFile, "trusted certificates");
        Check(natsOptions_SetSecure(&target, true), "Cannot use TLS");
        Check(natsOptions_LoadCATrustedCertificates(&target, options.caFile.c_str()),
              "Cannot use the trusted certificates " + options.caFile);
    }
    if (!options.certificateFile.empty()) {
        RequireFile(options.certificateFile, "certificate");
        RequireFile(options.keyFile, "key");
        Check(natsOptions_LoadCertificatesChain(&target, options.certificateFile.c_str(),
                                                options.keyFile.c_str()),
              "Cannot use the certificate " + options.certificateFile + " with the key " + options.keyFile);
    }
}

OptionsPtr Translate(const NatsOptions& options) {
    natsOptions* made = nullptr;
    Check(natsOptions_Create(&made), "Cannot connect");
    OptionsPtr target(made);
    std::vector<const char*> servers;
    for (const std::string& server : options.servers) {
        servers.push_back(server.c_str());
    }
    Check(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())),
          "The list of servers has one that is none");
    natsOptions_SetAllowReconnect(made, false);
    natsOptions_SetTimeout(made, kConnectTimeout);
    natsOptions_SetWriteDeadline(made, kWriteDeadline);
    natsOptions_SetPingInterval(made, kPingInterval);
    natsOptions_SetMaxPingsOut(made, kMostPings);
    natsOptions_SetIOBufSize(made, kBufferBytes);
    natsOptions_SetName(made, options.name.c_str());
    if (!options.credentialsFile.empty()) {
        RequireFile(options.credentialsFile, "credentials");
        Check(natsOptions_SetUserCredentialsFromFiles(made, options.credentialsFile.c_str(), nullptr),
              "Cannot use the credentials " + options.credentialsFile);
    }
    if (!options.userFile.empty()) {
        SetUser(*made, options.userFile);
    }
    SetTls(*made, options);
    return target;
}

std::string Join(const std::vector<std::string>& servers) {
    std::string text;
    for (const std::string& server : servers) {
        text += (text.empty() ? "" : ", ") + server;
    }
    return text;
}

} // namespace

struct NatsConnection::Subscription {
    std::string subject;
    std::function<void(natsMsg&)> onMessage;
    SubscriptionPtr subscription;
    std::promise<void> isOver; // No callback is running or will.
};

void Check(natsStatus status, const std::string& what) {
    if (status != NATS_OK) {
        natsStatus last = NATS_OK;
        const char* const detail = nats_GetLastError(&last);
        const bool hasDetail = detail != nullptr && *detail != '\0' && last == status;
        throw NatsError(what + ": " + (hasDetail ? detail : natsStatus_GetText(status)));
    }
}

NatsConnection::NatsConnection(const NatsOptions& options)
    : prefix_(options.domain.empty() ? "$JS.API." : "$JS." + options.domain + ".API.") {
    const OptionsPtr target = Translate(options);
    // A server that wants a certificate only ends the connection.
    const bool isUnknown = !options.caFile.empty() && options.certificateFile.empty();
    Check(natsConnection_Connect(&connection_, target.get()),
          "Cannot connect to " + Join(options.servers) +
              (isUnknown ? " without a certificate of this device" : ""));
}

NatsConnection::~NatsConnection() {
    Close();
    natsConnection_Destroy(connection_);
}

void NatsConnection::Close() {
    natsConnection_Close(connection_);
    for (const auto& each : subscriptions_) {
        each->isOver.get_future().wait();
    }
    subscriptions_.clear();
    const std::lock_guard<std::mutex> lock(overMutex_);
    over_.clear();
}

MessagePtr NatsConnection::Request(const std::string& subject, const std::string& question) {
    std::vector<SubscriptionPtr> over;
    {
        const std::lock_guard<std::mutex> lock(overMutex_);
        over.swap(over_);
    }
    natsMsg* answer = nullptr;
    const natsStatus status =
        natsConnection_Request(&answer, connection_, subject.c_str(), question.data(),
                               static_cast<int>(question.size()), kAnswerTimeout.count());
    MessagePtr message(answer);
    if (status != NATS_OK) { // Else the thread that has received the answer is past all that came before.
        const std::lock_guard<std::mutex> lock(overMutex_);
        std::move(over.begin(), over.end(), std::back_inserter(over_));
        over.clear();
    }
    if (status == NATS_NO_RESPONDERS) {
        throw NatsError("No server answers " + subject +
                        ": JetStream is off or without a leader, or it needs a domain");
    }
    Check(status, "No answer to " + subject);
    return message;
}

json NatsConnection::Ask(const std::string& operation, const json& question) {
    const MessagePtr message = Request(prefix_ + operation, question.is_null() ? "" : question.dump());
    const char* const data = natsMsg_GetData(message.get());
    json answer = json::parse(data, data + natsMsg_GetDataLength(message.get()), nullptr, false);
    if (answer.is_discarded()) {
        throw NatsError("The answer to " + operation + " is no JSON");
    }
    const auto error = answer.find("error");
    if (error != answer.end()) {
        throw JetStreamError(operation + ": " + error->value("description", "an error without a text"),
                             error->value("err_code", 0));
    }
    return answer;
}

void NatsConnection::Subscribe(const std::string& subject, std::function<void(natsMsg&)> onMessage) {
    auto made = std::make_unique<Subscription>();
    made->subject = subject;
    made->onMessage = std::move(onMessage);
    const auto call = [](natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
        const MessagePtr owned(message);
        static_cast<Subscription*>(closure)->onMessage(*message);
    };
    natsSubscription* subscription = nullptr;
    Check(natsConnection_Subscribe(&subscription, connection_, subject.c_str(), call, made.get()),
          "Cannot subscribe to " + subject);
    made->subscription.reset(subscription);
    const natsStatus status = natsSubscription_SetOnCompleteCB(
        subscription, [](void* closure) { static_cast<Subscription*>(closure)->isOver.set_value(); },
        made.get());
    if (status != NATS_OK) {
        static_cast<void>(
            made.release()); // The connection was lost meanwhile: nobody will tell when it is over.
        Check(status, "Cannot subscribe to " + subject);
    }
    natsSubscription_SetPendingLimits(subscription, -1, -1);
    subscriptions_.push_back(std::move(made));
}

void NatsConnection::Unsubscribe(const std::string& subject) {
    const auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                                    [&subject](const auto& each) { return each->subject == subject; });
    if (found != subscriptions_.end()) {
        natsSubscription_Unsubscribe((*found)->subscription.get());
        (*found)->isOver.get_future().wait();
        const std::lock_guard<std::mutex> lock(overMutex_);
        over_.push_back(std::move((*found)->subscription));
        subscriptions_.erase(found);
    }
}

void NatsConnection::Publish(natsMsg& message) {
    Check(natsConnection_PublishMsg(connection_, &message), "Cannot send");
}

void NatsConnection::PublishRequest(const std::string& subject, const std::string& reply,
                                    const std::string& text) {
    Check(natsConnection_PublishRequestString(connection_, subject.c_str(), reply.c_str(), text.c_str()),
          "Cannot send");
}

std::string NatsConnection::NewInbox() const {
    natsInbox* made = nullptr;
    Check(natsInbox_Create(&made), "Cannot make an inbox");
    std::string inbox = made;
    natsInbox_Destroy(made);
    return inbox;
}

std::size_t NatsConnection::MaxPayload() const {
    return static_cast<std::size_t>(natsConnection_GetMaxPayload(connection_));
}

std::string NatsConnection::Url() const {
    std::array<char, 256> url{};
    natsConnection_GetConnectedUrl(connection_, url.data(), url.size());
    return url.data();
}

} // namespace calvane_fleet
