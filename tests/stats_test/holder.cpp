// Needs the fake recorder, so that closing the recorder doesn't unload it.
extern "C" void* stats_recorder_alloc();

extern "C" void* stats_test_hold();
void* stats_test_hold() { return stats_recorder_alloc(); }
