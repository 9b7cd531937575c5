// Names a topic value type that is not a plain object type (CALL, given by check_cross.cmake, which
// compiles it and expects the compiler to refuse it with the board's message).

#include "vantor/messaging/contract.hpp"

struct Refused : vantor::messaging::Contract {
  Refused() : Contract("Refused", true) {}
  void call(volatile bool flag) { CALL; }
};
