# With the recorder's objects in it, the test's operator new is the recorder's too.
target_link_libraries(circmetrics_memory_test PRIVATE circmetrics_objects)
