#include "quarn/msgbus/MsgBus.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "quarn/core/Logger.h"
#include "quarn/msgbus/BusLink.h"
#include "quarn/msgbus/internal/Subscriptions.h"
#include "quarn/osa/Exception.h"

namespace quarn::msgbus {
namespace {

constexpr const char* kPath = "/com/quarn/MsgBus";
constexpr const char* kInterface = "com.quarn.MsgBus1";
constexpr const char* kMember = "Message";

bool IsPlain(char character) {
    return static_cast<unsigned char>(character) >= ' ' && character != '\'' && character != '\\' &&
           character != ',' && character != '\x7f';
}

void CheckTopic(const std::string& topic) {
    if (topic.empty() || topic.size() > 255 || !std::all_of(topic.begin(), topic.end(), IsPlain)) {
        throw osa::Exception("Not a topic for the message bus: \"" + topic + "\"");
    }
}

std::string MatchOf(const std::string& topic) {
    return std::string("type='signal',path='") + kPath + "',interface='" + kInterface + "',member='" +
           kMember + "',arg0='" + topic + "'";
}

} // namespace

class MsgBus::Impl : public IBusLinkClient {
public:
    Impl() : link_("MsgBus", *this) {}
    ~Impl() override { link_.Stop(); }

    void Publish(Message message);
    int Subscribe(const std::string& topic, Callback callback);
    void Unsubscribe(int number) { subscriptions_.Remove(number); }
    bool IsConnected() const { return connected_; }
    unsigned long long GetDropped() const { return link_.GetDropped(); }

private:
    void OnConnected(sdbus::IConnection& connection) override;
    void OnLost() override;
    void ConnectOnce();
    void MatchTopics(sdbus::IConnection& connection);
    void Send(const Message& message);
    void Receive(sdbus::Message& signal);

    Subscriptions subscriptions_;
    std::once_flag connectOnce_;
    std::atomic<bool> connected_{false};

    // The link's thread's own.
    std::unique_ptr<sdbus::IObject> object_;
    std::string ownName_;
    std::map<std::string, sdbus::Slot> matches_;

    BusLink link_;
};

void MsgBus::Impl::ConnectOnce() {
    std::call_once(connectOnce_, [this] { link_.ConnectInBackground("messages stay within this process"); });
}

void MsgBus::Impl::Publish(Message message) {
    CheckTopic(message.topic);
    if (message.content.size() > kMaxContentBytes) {
        throw osa::Exception("A message under " + message.topic + " has " +
                             std::to_string(message.content.size()) + " bytes; the most are " +
                             std::to_string(kMaxContentBytes));
    }
    ConnectOnce();
    subscriptions_.Deliver(message);
    const std::size_t bytes = message.content.size();
    link_.Post([this, sent = std::move(message)](sdbus::IConnection&) { Send(sent); }, bytes);
}

int MsgBus::Impl::Subscribe(const std::string& topic, Callback callback) {
    CheckTopic(topic);
    const int number = subscriptions_.Add(topic, std::move(callback));
    ConnectOnce();
    link_.PostFirst([this](sdbus::IConnection& connection) { MatchTopics(connection); });
    return number;
}

void MsgBus::Impl::OnConnected(sdbus::IConnection& connection) {
    object_ = sdbus::createObject(connection, kPath);
    object_->registerSignal(kInterface, kMember, "sbay");
    object_->finishRegistration();
    ownName_ = connection.getUniqueName();
    MatchTopics(connection);
    connected_ = true;
}

void MsgBus::Impl::OnLost() {
    connected_ = false;
    matches_.clear();
    object_ = nullptr;
}

/// A topic that nobody wants any more stays matched: it is little, and often wanted again.
void MsgBus::Impl::MatchTopics(sdbus::IConnection& connection) {
    for (const std::string& topic : subscriptions_.Topics()) {
        auto& match = matches_[topic];
        if (match == nullptr) {
            match = connection.addMatch(MatchOf(topic), [this](sdbus::Message& signal) { Receive(signal); });
        }
    }
}

void MsgBus::Impl::Send(const Message& message) {
    auto signal = object_->createSignal(kInterface, kMember);
    signal << message.topic << message.isText
           << std::vector<std::uint8_t>(message.content.begin(), message.content.end());
    signal.send();
}

void MsgBus::Impl::Receive(sdbus::Message& signal) {
    if (signal.getSender() == ownName_) {
        return; // Delivered when it was published.
    }
    try {
        Message message;
        std::vector<std::uint8_t> content;
        signal >> message.topic >> message.isText >> content;
        message.content.assign(content.begin(), content.end());
        subscriptions_.Deliver(message);
    } catch (const sdbus::Error& problem) { // Anybody may send anything.
        core::Logger::GetLogger("MsgBus")->Debug("Not a message: %s", problem.what());
    }
}

MsgBus::MsgBus() : impl_(std::make_unique<Impl>()) {}

MsgBus::~MsgBus() = default;

void MsgBus::PublishText(const std::string& topic, const std::string& text) {
    impl_->Publish({topic, text, true});
}

void MsgBus::PublishBytes(const std::string& topic, const void* data, std::size_t size) {
    impl_->Publish({topic, std::string(static_cast<const char*>(data), size), false});
}

int MsgBus::Subscribe(const std::string& topic, Callback callback) {
    return impl_->Subscribe(topic, std::move(callback));
}

void MsgBus::Unsubscribe(int subscription) {
    impl_->Unsubscribe(subscription);
}

bool MsgBus::IsConnected() const {
    return impl_->IsConnected();
}

unsigned long long MsgBus::GetDropped() const {
    return impl_->GetDropped();
}

} // namespace quarn::msgbus
