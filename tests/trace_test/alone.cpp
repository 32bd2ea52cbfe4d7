// Reports to the tracer in a process without libQVUtil.so, and so without a log.
#include <quorvane/tracer.h>

#include <initializer_list>

int main() {
  for (int round = 0; round < 2; ++round) {
    _qv_trace_rpc_t record;
    for (const unsigned event : {1543U, 1544U}) {
      qvtracer::util::write_trace(nullptr, &record, event, 12, nullptr, nullptr, nullptr, nullptr);
    }
  }
  return 0;
}
