#pragma once

#include "quarn/Export.h"

namespace quarn::msgbus {

/// A connection to the device's message bus. It has no operations yet and connects to nothing: what can be
/// done with it today is to make one, to hand it round and to delete it.
class QUARN_API MsgBus {
public:
    MsgBus();
    ~MsgBus();
    MsgBus(const MsgBus&) = delete;
    MsgBus& operator=(const MsgBus&) = delete;
};

} // namespace quarn::msgbus
