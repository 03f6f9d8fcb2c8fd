#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <utility>

#include "drenn/api/internal/ServiceRunner.h"
#include "quarn/osa/Exception.h"

namespace drenn::api {

ServiceRunner::ServiceRunner(const std::string& serviceName, MakeObject makeObject)
    : serviceName_(serviceName), makeObject_(std::move(makeObject)), link_(serviceName, *this) {
    link_.Connect();
}

ServiceRunner::~ServiceRunner() {
    link_.Stop();
}

bool ServiceRunner::Post(std::function<void()> send) {
    return link_.Post([work = std::move(send)](sdbus::IConnection&) { work(); });
}

void ServiceRunner::OnConnected(sdbus::IConnection& connection) {
    // The object first: whoever sees the name can call it.
    object_ = makeObject_(connection, "/com/drenn/" + serviceName_);
    const std::string name = "com.drenn." + serviceName_;
    try {
        connection.requestName(name);
    } catch (const sdbus::Error& problem) {
        throw quarn::osa::Exception("Cannot own the bus name " + name +
                                    " (is another process its owner?): " + problem.getMessage());
    }
}

void ServiceRunner::OnLost() {
    object_ = nullptr;
}

void AnswerCall(const char* operation, const std::function<unsigned int()>& answer) {
    unsigned int status = 0;
    try {
        status = answer();
    } catch (const std::exception& problem) {
        throw sdbus::Error("com.drenn.Error.Failed", problem.what());
    } catch (...) {
        throw sdbus::Error("com.drenn.Error.Failed",
                           std::string(operation) + " failed for an unknown reason");
    }
    if (status != 0) {
        const std::string number = std::to_string(status);
        throw sdbus::Error("com.drenn.Error.Status" + number,
                           std::string(operation) + " answered status " + number);
    }
}

} // namespace drenn::api
