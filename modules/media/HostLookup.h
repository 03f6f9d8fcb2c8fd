#pragma once

#include <functional>
#include <string>

namespace calvane_media {

/// Finds the addresses of a URL's host once, so that opening the URL need not wait for a name server: the library's own
/// look-up cannot be interrupted. A URL without a host needs nothing. What the name server says is left for the library
/// to tell, but for one thing: that no server answers.
///
/// Threads: any. A look-up that was given up goes on in a thread of its own until the name servers' time is over.
/// Returns: false when `isInterrupted`, which is asked every few milliseconds, ended it.
/// Errors:  std::runtime_error when no name server answers; std::system_error without resources for a thread.
bool AwaitHost(const std::string& url, const std::function<bool()>& isInterrupted);

} // namespace calvane_media
