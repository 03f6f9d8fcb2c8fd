#include <gmock/gmock.h>

#include <filesystem>

#include "support/Program.h"
#include "support/TestStore.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

/// The exit status of `calvane-store ARGUMENTS`; `out` gets all that it wrote.
int RunTool(const std::vector<std::string>& arguments, const TempFolder& folder, std::string& out) {
    Program program("calvane-store", arguments, folder.Path());
    const int status = program.Wait();
    out = program.Out() + program.Err();
    return status;
}

} // namespace

TEST(StoreTool, TellsTheTruthOfAGoodADamagedAndALostStore) {
    TestStore test;
    const auto track = test.NewTrack();
    drenn::multi_track_recorder::BlobRecord record;
    record.add(drenn::multi_track_recorder::Blob("payload of a record", 19));
    for (int i = 0; i != 3; ++i) {
        *track << record;
    }
    test.store->Sync();
    const unsigned int trackId = track->getId();
    const std::string root = test.folder.Path();
    std::string out;
    EXPECT_EQ(1, RunTool({"verify", root}, test.folder, out)) << out; // Somebody has it open.
    EXPECT_THAT(out, StartsWith("calvane-store: "));
    test.store = nullptr;
    EXPECT_EQ(0, RunTool({"verify", root}, test.folder, out)) << out;
    EXPECT_EQ(0, RunTool({"info", root}, test.folder, out));
    EXPECT_THAT(out, HasSubstr(": 3 records\n"));

    const std::string id = std::to_string(trackId);
    EXPECT_EQ(1, RunTool({"trim", root, id, "4"}, test.folder, out));
    EXPECT_THAT(out, HasSubstr("Track " + id + " has 3 records; the newest 4 cannot be erased"));
    EXPECT_EQ(1, RunTool({"trim", root, "77", "1"}, test.folder, out));
    EXPECT_THAT(out, HasSubstr("There is no track 77 in " + root));
    EXPECT_EQ(2, RunTool({"trim", root, id, "0"}, test.folder, out));
    EXPECT_EQ(0, RunTool({"trim", root, id, "1"}, test.folder, out));
    EXPECT_EQ("track " + id + ": 2 records are left\n", out);
    EXPECT_EQ(0, RunTool({"verify", root}, test.folder, out)) << out;

    std::filesystem::remove_all(test.options.database);
    EXPECT_EQ(1, RunTool({"trim", root, id, "1"}, test.folder, out));
    EXPECT_EQ(1, RunTool({"verify", root}, test.folder, out)) << out;
    EXPECT_EQ(0, RunTool({"rebuild", root}, test.folder, out)) << out;
    EXPECT_EQ(0, RunTool({"info", root}, test.folder, out));
    EXPECT_THAT(out, HasSubstr(": 2 records\n"));

    for (const auto& entry : std::filesystem::directory_iterator(test.options.storage)) {
        const std::string name = entry.path().filename();
        std::string bytes = test.folder.Read("data/" + name);
        if (const size_t place = bytes.find("payload"); place != std::string::npos) {
            bytes[place] = 'P';
            test.folder.Write("data/" + name, bytes);
        }
    }
    EXPECT_EQ(1, RunTool({"verify", root}, test.folder, out));
    EXPECT_THAT(out, HasSubstr("data/"));
    EXPECT_EQ(2, RunTool({"verify", root + "/none"}, test.folder, out));
    EXPECT_EQ(2, RunTool({"polish", root}, test.folder, out));
}
