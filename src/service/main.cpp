// The kqworldrepresentation process: a broker of its own hosting the module.
// A start that cannot work ends inside mainFunction with its own status;
// whatever mainFunction returns, the process ends with 0, as a module's
// process always has.
#include "service/process_entry.h"
#include "module/world_representation.h"

int main(int argc, char* argv[]) {
  KQTools::mainFunction("kqworldrepresentation", argc, argv, _createModule);
  return 0;
}
