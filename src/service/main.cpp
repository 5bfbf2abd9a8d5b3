// The kqworldrepresentation process: a broker of its own hosting the module.
// A start that cannot work ends inside mainFunction with its own status; a
// stop ends with 0, or 1 when a module could not exit cleanly (the world
// could not be saved).
#include "service/process_entry.h"
#include "module/world_representation.h"

int main(int argc, char* argv[]) {
  return KQTools::mainFunction("kqworldrepresentation", argc, argv, _createModule);
}
