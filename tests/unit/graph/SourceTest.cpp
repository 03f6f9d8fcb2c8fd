#include "calvane/graph/Source.h"

#include "quarn/osa/LockException.h"
#include "support/TestPlugins.h"

using namespace quarn::calvane;

namespace {

/// A sink that writes down what arrives and can refuse it.
class Probe : public Sink::IBufferHandler, public Sink::IFormatHandler {
public:
    Probe() : sink(this) { sink.SetFormatHandler(this); }
    void OnBuffer(const Sink*, Buffer* buffer) override {
        const std::unique_ptr<Buffer> owned(buffer);
        received.push_back(buffer);
        writable.push_back(buffer != nullptr && buffer->IsWritable());
        Refuse();
    }
    void OnNewFormat(const Sink*, const BufferFormat& format) override {
        formats.push_back(format.GetFormat());
        Refuse();
    }
    void Refuse() const {
        if (refuse) {
            throw quarn::osa::Exception("refused");
        }
    }

    Sink sink;
    bool refuse = false;
    std::vector<const Buffer*> received; // Gone by the time they are looked at.
    std::vector<bool> writable;
    std::vector<unsigned int> formats;
};

BufferFormat Format(unsigned int code, int width) {
    BufferFormat format;
    format.SetFormat(code);
    format.Set("w", width);
    return format;
}

} // namespace

TEST(Source, ConnectsOnceAndOnlyWhereTheFormatFits) {
    Source source;
    Probe probe;
    probe.sink.SetFormat(Format(5, 1));
    EXPECT_EQ("Incompatible formats", ThrownText([&] { source.ConnectTo(&probe.sink); }));
    source.SetFormat(Format(9, 1));
    source.ConnectTo(&probe.sink);
    source.ConnectTo(&probe.sink);
    EXPECT_EQ((std::vector<unsigned int>{9}), probe.formats);
    EXPECT_EQ("Incompatible formats", ThrownText([&] { source.SetFormat(Format(9, 2)); }));
    EXPECT_TRUE(source.Disconnect(&probe.sink));
    EXPECT_FALSE(source.Disconnect(&probe.sink));
    EXPECT_THROW(source.ConnectTo(nullptr), quarn::osa::Exception);

    probe.refuse = true;
    EXPECT_EQ("refused", ThrownText([&] { source.ConnectTo(&probe.sink); }));
    source.PushBuffer(MakeBuffer("y"));
    EXPECT_TRUE(probe.received.empty());
}

TEST(Source, ServesSinksInOrderAndGivesTheLastTheBufferItself) {
    const ExpectNoBuffersLeft check;
    Source source;
    Probe probes[3];
    for (Probe& probe : probes) {
        source.ConnectTo(&probe.sink);
    }
    Buffer* const pushed = MakeBuffer("x");
    source.PushBuffer(pushed);
    for (const int number : {0, 1, 2}) {
        EXPECT_EQ(number == 2, pushed == probes[number].received.at(0));
        EXPECT_EQ(number == 2, probes[number].writable[0]);
    }
    probes[1].refuse = true;
    EXPECT_EQ("refused", ThrownText([&] { source.SetFormat(Format(4, 1)); }));
    EXPECT_EQ((std::vector<unsigned int>{0, 4}), probes[0].formats);
    EXPECT_EQ((std::vector<unsigned int>{0}), probes[2].formats);
    EXPECT_EQ(BufferFormat(), source.GetFormat());
}

TEST(Source, DestroysEveryBufferOnceWhateverHappensToIt) {
    const ExpectNoBuffersLeft check;
    Source source;
    source.PushBuffer(MakeBuffer("nobody listens"));
    source.PushBuffer(nullptr);
    Sink(nullptr).PushBuffer(MakeBuffer("no handler"));
    Probe first;
    Probe last;
    source.ConnectTo(&first.sink);
    source.ConnectTo(&last.sink);
    first.refuse = true;
    EXPECT_EQ("refused", ThrownText([&] { source.PushBuffer(MakeBuffer("x")); }));
    EXPECT_TRUE(last.received.empty());
    first.refuse = false;
    last.refuse = true;
    EXPECT_EQ("refused", ThrownText([&] { source.PushBuffer(MakeBuffer("x")); }));
    last.refuse = false;
    source.PushBuffer(MakeBuffer("the lock was given back"));
    EXPECT_EQ(2U, last.received.size());
    source.PushBuffer(nullptr);
    EXPECT_EQ(nullptr, first.received.back());
    EXPECT_EQ(nullptr, last.received.back());
}

TEST(Source, RefusesToBeCalledFromItsOwnDownstream) {
    const ExpectNoBuffersLeft check;
    Source source;
    const PluginPtr sink(new TestSink("s", [&](auto&) { source.PushBuffer(MakeBuffer("again")); }));
    source.ConnectTo(sink->GetSink());
    EXPECT_THROW(source.PushBuffer(MakeBuffer("once")), quarn::osa::LockException);
}
