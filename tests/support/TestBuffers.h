#pragma once

#include <gtest/gtest.h>

#include "calvane/testing/CountedMemory.h"

using quarn::calvane::testkit::CountedMemory;
using quarn::calvane::testkit::MakeBuffer;
using quarn::calvane::testkit::TextOf;

/// Fails the test in which it stands when memory made during its life is still there at its end.
class ExpectNoBuffersLeft {
public:
    ~ExpectNoBuffersLeft() { EXPECT_EQ(before_, CountedMemory::alive.load()); }

private:
    const int before_ = CountedMemory::alive.load();
};
