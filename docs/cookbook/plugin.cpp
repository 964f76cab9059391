#include "plugin.h"

extern "C" __attribute__((visibility("default"))) const TPlugin* GetPlugin() {
    static const TPlugin plugin = {PLUGIN_VERSION, "sum", [](int left, int right) { return left + right; }};
    return &plugin;
}
