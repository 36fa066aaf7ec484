/*
 * player_function - the names of the platform's functions, for `fault` and `calls`.
 *
 * The platform counts a call by a name that it is given, whatever that is; a
 * name with a slip in it would never be called, and `calls ... 0` and `fault`
 * would seem to work. So the names stand here, as the platform announces them.
 */
#ifndef SIM_PLAYER_FUNCTION_H
#define SIM_PLAYER_FUNCTION_H

#include <string>

#include "sim/player_text.h"

namespace sim
{

/* Reads the name of a function that the platform announces, or malloc; throws Refusal. */
std::string function_parse(Cursor &cursor);

} // namespace sim

#endif
