#pragma once

// The callback body of every signal measured, in vantor_bench and in vantor_count_instructions alike.

namespace vantor_bench {

// Counts the true values it is handed. It writes through a pointer, so the optimiser cannot drop the
// call, and it is one pointer wide, so every library keeps it in its small-object buffer and nobody pays
// an allocation for it.
struct CountTrue {
  long* count;
  void operator()(bool value) const { *count += value ? 1 : 0; }
};

}  // namespace vantor_bench
