#include "quarn/msgbus/MsgBus.h"

namespace quarn::msgbus {

MsgBus::MsgBus() = default;
MsgBus::~MsgBus() = default;

} // namespace quarn::msgbus
