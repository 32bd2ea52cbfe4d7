// Calls the program when the plugin is loaded and when it is unloaded.
extern "C" void stats_test_plugin_is_loaded();
extern "C" void stats_test_plugin_is_unloaded();

__attribute__((constructor)) static void at_load() { stats_test_plugin_is_loaded(); }
__attribute__((destructor)) static void at_unload() { stats_test_plugin_is_unloaded(); }
