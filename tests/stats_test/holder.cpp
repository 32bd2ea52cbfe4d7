// Links the fake recorder, and so keeps it loaded when its handle is closed.
extern "C" void* stats_recorder_alloc();

extern "C" void* stats_test_hold();
void* stats_test_hold() { return stats_recorder_alloc(); }
