// What a host and its plug-ins agree on. All of it is C: no class of C++ crosses the border.
#ifndef PLUGIN_H
#define PLUGIN_H

#define PLUGIN_VERSION 1

struct TPlugin {
    int Version; // PLUGIN_VERSION of the plug-in
    const char* Name;
    int (*Compute)(int left, int right);
};

#endif
