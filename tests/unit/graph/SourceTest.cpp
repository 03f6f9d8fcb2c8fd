#include "calvane/graph/Source.h"

#include <gtest/gtest.h>

#include "quarn/core/LogCapture.h"
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
        writable.push_back(buffer->IsWritable());
        if (refuse) {
            throw quarn::osa::Exception("refused");
        }
    }
    void OnNewFormat(const Sink*, const BufferFormat& format) override {
        formats.push_back(format.GetFormat());
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
    source.PushBuffer(MakeBuffer("x"));
    EXPECT_EQ(1U, probe.received.size());
    EXPECT_EQ("Incompatible formats", ThrownText([&] { source.SetFormat(Format(9, 2)); }));
    EXPECT_TRUE(source.Disconnect(&probe.sink));
    EXPECT_FALSE(source.Disconnect(&probe.sink));
    EXPECT_THROW(source.ConnectTo(nullptr), quarn::osa::Exception);

    probe.refuse = true;
    EXPECT_EQ("refused", ThrownText([&] { source.ConnectTo(&probe.sink); }));
    source.PushBuffer(MakeBuffer("y"));
    EXPECT_EQ(1U, probe.received.size());
}

TEST(Source, GivesTheLastSinkTheBufferItselfAndOthersDuplicates) {
    const ExpectNoBuffersLeft check;
    Source source;
    Probe probes[3];
    for (Probe& probe : probes) {
        source.ConnectTo(&probe.sink);
    }
    Buffer* const pushed = MakeBuffer("x");
    source.PushBuffer(pushed);
    EXPECT_NE(pushed, probes[0].received.at(0));
    EXPECT_NE(pushed, probes[1].received.at(0));
    EXPECT_EQ(pushed, probes[2].received.at(0));
    EXPECT_FALSE(probes[0].writable[0]);
    EXPECT_FALSE(probes[1].writable[0]);
    EXPECT_TRUE(probes[2].writable[0]);
}

TEST(Source, AnnouncesAFormatUpToTheSinkThatRefusesIt) {
    Source source;
    Probe probes[3];
    for (Probe& probe : probes) {
        source.ConnectTo(&probe.sink);
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

    Sink deaf(nullptr);
    quarn::core::LogCapture log;
    deaf.PushBuffer(MakeBuffer("no handler"));
    EXPECT_EQ(1U, log.Count("Received a buffer but no listener was attached!"));

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
}

TEST(Source, RefusesToBeCalledFromItsOwnDownstream) {
    const ExpectNoBuffersLeft check;
    Source source;
    const PluginPtr sink(new TestSink("s", [&](auto&) { source.PushBuffer(MakeBuffer("again")); }));
    source.ConnectTo(sink->GetSink());
    EXPECT_THROW(source.PushBuffer(MakeBuffer("once")), quarn::osa::LockException);
}

TEST(Sink, TakesOneFormatHandler) {
    Probe probe;
    EXPECT_EQ("Can't switch FormatHandlers after one has already been specified",
              ThrownText([&] { probe.sink.SetFormatHandler(&probe); }));
    Sink plain(&probe);
    plain.PushFormat(Format(1, 1));
    EXPECT_EQ(BufferFormat(), plain.GetFormat());
}
