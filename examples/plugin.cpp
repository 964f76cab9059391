// A plug-in for plugin_host: functions of one number, found by their plain names.

extern "C" {

__attribute__((visibility("default"))) double Twice(double argument) {
    return 2 * argument;
}

__attribute__((visibility("default"))) double Square(double argument) {
    return argument * argument;
}
}
