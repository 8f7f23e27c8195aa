#include "Support/TerminalHarness.h"
