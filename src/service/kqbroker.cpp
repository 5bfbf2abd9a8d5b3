// The kqbroker process: a broker of the middleware with the same network
// front, options and built-in KQMemory and KQMotion as kqworldrepresentation,
// hosting only the module libraries named with --load.
#include "service/process_entry.h"

int main(int argc, char* argv[]) { return KQTools::mainFunction("kqbroker", argc, argv, nullptr); }
