// Conditional evaluation of "if" schema elements, and the table of named
// custom validators with the elementary checks they are built from.
#define ZR_SOURCE "src/validators"
#include "internal.h"

// ------------------------------------------------------------------------
// Conditional evaluation
// ------------------------------------------------------------------------



// ------------------------------------------------------------------------
// Custom validators
// ------------------------------------------------------------------------
