#include <benchmark/benchmark.h>
#include <dbus/dbus.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

constexpr const char* kInterface = "com.drenn.RecordingInformation1";

DBusConnection* Open() {
    dbus_threads_init_default();
    DBusConnection* const connection = dbus_bus_get_private(DBUS_BUS_SESSION, nullptr);
    if (connection == nullptr) {
        throw std::runtime_error("there is no session bus");
    }
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    return connection;
}

void Close(DBusConnection* connection) {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

DBusHandlerResult Answer(DBusConnection* connection, DBusMessage* call, void*) {
    if (dbus_message_is_method_call(call, kInterface, "getRecordingSummary") == FALSE) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const std::uint32_t numbers[] = {1, 2, 3, 4};
    DBusMessage* const reply = dbus_message_new_method_return(call);
    dbus_message_append_args(reply, DBUS_TYPE_UINT32, &numbers[0], DBUS_TYPE_UINT32, &numbers[1],
                             DBUS_TYPE_UINT32, &numbers[2], DBUS_TYPE_UINT32, &numbers[3], DBUS_TYPE_INVALID);
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

/// The same operation as libdbus serves it.
class LibdbusService {
public:
    LibdbusService() : connection_(Open()) {
        dbus_bus_request_name(connection_, "com.drenn.libdbus", 0, nullptr);
        static const DBusObjectPathVTable table = {nullptr, &Answer, nullptr, nullptr, nullptr, nullptr};
        dbus_connection_register_object_path(connection_, "/com/drenn/libdbus", &table, nullptr);
        thread_ = std::thread([this] {
            while (!stop_ && dbus_connection_read_write_dispatch(connection_, 100) != FALSE) {
            }
        });
    }
    ~LibdbusService() {
        stop_ = true;
        thread_.join();
        Close(connection_);
    }
    LibdbusService(const LibdbusService&) = delete;
    LibdbusService& operator=(const LibdbusService&) = delete;

private:
    DBusConnection* const connection_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

void CallLibdbus(benchmark::State& state) {
    static const LibdbusService service;
    DBusConnection* const connection = Open();
    for (auto _ : state) {
        DBusMessage* const call = dbus_message_new_method_call("com.drenn.libdbus", "/com/drenn/libdbus",
                                                               kInterface, "getRecordingSummary");
        DBusMessage* const reply = dbus_connection_send_with_reply_and_block(connection, call, 5000, nullptr);
        std::uint32_t numbers[4] = {};
        if (reply == nullptr ||
            dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &numbers[0], DBUS_TYPE_UINT32,
                                  &numbers[1], DBUS_TYPE_UINT32, &numbers[2], DBUS_TYPE_UINT32, &numbers[3],
                                  DBUS_TYPE_INVALID) == FALSE ||
            numbers[3] != 4) {
            state.SkipWithError("a wrong answer");
            break;
        }
        dbus_message_unref(reply);
        dbus_message_unref(call);
    }
    state.SetItemsProcessed(state.iterations());
    Close(connection);
}
BENCHMARK(CallLibdbus)->UseRealTime()->Threads(1)->Threads(8);

} // namespace
