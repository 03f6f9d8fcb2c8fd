#include <drenn/core/Logging.h>
#include <drenn/core/Settings.h>

int main(void) {
    int value = 0;
    if (drenn_core_settings_set_int_value("consumer.answer", 42) != DRENN_STATUS_OK ||
        drenn_core_settings_get_int_value("consumer.answer", &value) != DRENN_STATUS_OK) {
        return 2;
    }
    return value == 42 ? 0 : 1;
}
