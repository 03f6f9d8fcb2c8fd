#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Program.h"

/// Runs the program `calvane` in a folder of its own.
class ProgramFixture : public testing::Test {
protected:
    /// The exit status of `calvane ARGUMENTS`; what it wrote is in `out` and `err`.
    int Calvane(const std::vector<std::string>& arguments) {
        Program program("calvane", arguments, folder.Path());
        const int status = program.Wait();
        out = program.Out();
        err = program.Err();
        return status;
    }
    /// `calvane COMMAND d.ini`, with this description.
    int Calvane(const std::string& command, const std::string& description) {
        folder.Write("d.ini", description);
        return Calvane({command, "d.ini"});
    }

    TempFolder folder;
    std::string out;
    std::string err;
};
