#pragma once

#include "WebServer.h"
#include "api/ClientPool.h"
#include "api/Events.h"
#include "api/Media.h"
#include "api/RecorderMedia.h"

namespace calvane_web {

/// What the recorder of this device has recorded.
class RecorderContent : public IWebContent {
public:
    RecorderContent();

    std::string Page() const override { return "index.html"; }
    void AddTo(Site& site, const ServerFacts& server) override;
    void Stop() override;

private:
    ClientPool clients_;
    RecorderMedia sources_;
    Media media_;
    Events events_;
};

} // namespace calvane_web
