// Names a topic value type that is not a plain object type (CASE picks one): each must fail to compile
// with the board's message. Compiled, never linked, by check_cross.cmake.

#include "vantor/messaging/contract.hpp"

struct Refused : vantor::messaging::Contract {
  Refused() : Contract("Refused", true) {}
  void call() {
#if CASE == 0
    update<const std::string&>("t", {});
#elif CASE == 1
    get<int&>("t");
#elif CASE == 2
    subscribe<const int>("t", {});
#elif CASE == 3
    notify<volatile bool>("t", true);
#else
    notify("t", "deduced as an array");
#endif
  }
};
