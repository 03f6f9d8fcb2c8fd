#pragma once

#include <memory>

namespace quarn::calvane {

class CalvaneEnv;
class IPipelineReporter;

// What a plugin manager needs of the environment, which stands above it: the runtime defines these.

/// An environment whose failures are reported to nobody.
std::shared_ptr<CalvaneEnv> MakeEnvironment();
/// `ownsReporter`: `reporter` is deleted with the environment.
std::shared_ptr<CalvaneEnv> MakeEnvironment(IPipelineReporter* reporter, bool ownsReporter);

} // namespace quarn::calvane
