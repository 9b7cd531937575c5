#pragma once

// VANTOR_MESSAGE_BOARD_API marks what the shared library exports. The library is compiled with hidden
// visibility, so its dynamic symbol table holds exactly the classes and instantiations that carry
// this macro. Consumers see the same attribute, which is harmless for them.
#define VANTOR_MESSAGE_BOARD_API __attribute__((visibility("default")))
