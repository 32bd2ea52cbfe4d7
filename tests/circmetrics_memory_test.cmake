# The test links the recorder's objects, so that its operator new serves them, too.
target_link_libraries(circmetrics_memory_test PRIVATE circmetrics_objects)
