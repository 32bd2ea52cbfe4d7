# These tests bring a tracer of their own, which the library finds in the executable.
set_target_properties(indexed_tracer_test remote_tracer_server_test PROPERTIES ENABLE_EXPORTS ON)
