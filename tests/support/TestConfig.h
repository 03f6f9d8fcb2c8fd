#pragma once

#include "calvane/testing/TestConfiguration.h"

using quarn::calvane::testkit::Settings;
using TestConfig = quarn::calvane::testkit::TestConfiguration;
