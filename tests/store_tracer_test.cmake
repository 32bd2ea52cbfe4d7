# The test brings a tracer of its own, which the library finds in the executable.
set_target_properties(store_tracer_test PROPERTIES ENABLE_EXPORTS ON)
