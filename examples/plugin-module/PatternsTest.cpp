// Tests each plugin alone: patterns-test MODULE

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "ByteMaskFilter.h"
#include "ChecksumSink.h"
#include "PatternSource.h"
#include "calvane/graph/SettingException.h"
#include "calvane/testing/PluginHarness.h"

using namespace quarn::calvane;
using namespace quarn::calvane::testkit;
using namespace patterns;

namespace {

int failures = 0;

// Unlike assert it also works in a release build, and goes on.
#define EXPECT(condition) Expect(condition, #condition, __LINE__)

void Expect(bool condition, const char* text, int line) {
    if (!condition) {
        std::fprintf(stderr, "PatternsTest.cpp:%d: this does not hold: %s\n", line, text);
        ++failures;
    }
}

// The text of what `action` throws.
std::string Complaint(const std::function<void()>& action) {
    try {
        action();
    } catch (const SettingException& error) {
        return error.GetKey() + ": " + error.what();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "none";
}

// What the constructor of a plugin says to its settings.
template <typename Plugin>
std::string Complaint(const Settings& settings) {
    return Complaint([&] { const PluginHarness harness(Construct<Plugin>, settings); });
}

void TestSource() {
    PluginHarness harness(Construct<PatternSource>,
                          {{"count", "2"}, {"block.bytes", "4"}, {"interval.ms", "1500"}});
    CollectingSink& ramp = harness.ConnectOutput("ramp");
    CollectingSink& stripes = harness.ConnectOutput("stripes");
    EXPECT(ramp.GetFormats().back().GetInt("block.bytes") == 4);

    quarn::osa::TimeStruct next;
    EXPECT(harness.Generate(next));
    EXPECT(next == quarn::osa::TimeStruct(1, 500000));
    harness.GenerateAll();
    EXPECT((ramp.GetTexts() == std::vector<std::string>{{"\0\1\2\3", 4}, "\1\2\3\4"}));
    EXPECT((stripes.GetTexts() == std::vector<std::string>{"U\xAAU\xAA", "U\xAAU\xAA"}));
    EXPECT(ramp.GetBuffers().back().timestamp == next);
    EXPECT(ramp.GetBuffers().back().metadata.GetInt("Number") == 1);
    EXPECT(Complaint<PatternSource>({{"block.bytes", "0"}}) ==
           "block.bytes: plugin: block.bytes must be at least 1, not 0");
}

void TestFilter(const std::string& module) {
    PluginHarness harness(module, "ByteMaskFilter", {{"operation", "or"}, {"value", "32"}});
    EXPECT(harness.GetUnreadSettings().empty());
    CollectingSink& output = harness.ConnectOutput();
    harness.Push("ABC");
    EXPECT(output.GetTexts().back() == "abc");

    // It hands formats on.
    BufferFormat format;
    format.Set("block.bytes", 3);
    harness.SetFormat(format);
    EXPECT(output.GetFormats().back() == format);

    // What others look at, too, stays as it is.
    const std::unique_ptr<Buffer> shared(MakeBuffer("XYZ"));
    harness.Push(shared->Duplicate());
    EXPECT(output.GetTexts().back() == "xyz");
    EXPECT(TextOf(*shared) == "XYZ");

    EXPECT(Complaint<ByteMaskFilter>({{"value", "256"}}) ==
           "value: plugin: value must be from 0 to 255, not 256");
    EXPECT(Complaint<ByteMaskFilter>({{"operation", "plus"}}) ==
           "operation: plugin: operation must be and, or, or xor, not \"plus\"");
}

void TestSink() {
    PluginHarness harness(Construct<ChecksumSink>, {{"filename", "patterns-test.txt"}});
    Buffer* const buffer = MakeBuffer("123456789");
    buffer->SetTimestamp({2, 5});
    harness.Push(buffer);
    std::ifstream file("patterns-test.txt");
    std::string line;
    std::getline(file, line);
    EXPECT(line == "2.000005 9 cbf43926"); // The check value that every CRC-32 has for these nine digits.

    // It takes only what it asks for.
    PluginHarness picky(Construct<ChecksumSink>, {{"filename", "patterns-test.txt"}, {"block.bytes", "9"}});
    EXPECT(Complaint([&] { picky.Push("123456789"); }) == "Incompatible formats");
    BufferFormat format;
    format.Set("block.bytes", 9);
    picky.SetFormat(format);
    picky.Push("123456789");

    PluginHarness full(Construct<ChecksumSink>, {{"filename", "/dev/full"}});
    EXPECT(Complaint([&] { full.Push("a"); }) ==
           "plugin: Cannot write file /dev/full: No space left on device");
    EXPECT(Complaint<ChecksumSink>({}) == "filename: plugin: filename is missing");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: patterns-test MODULE\n");
        return 2;
    }
    try {
        TestSource();
        TestFilter(argv[1]);
        TestSink();
        EXPECT(CountedMemory::alive == 0); // No plugin forgot a buffer.
    } catch (const std::exception& error) {
        std::fprintf(stderr, "patterns-test: %s\n", error.what());
        return 1;
    }
    return failures == 0 ? 0 : 1;
}
