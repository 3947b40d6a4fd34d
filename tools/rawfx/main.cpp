#include "tools/rawfx/cli.h"

int main(int argc, char** argv) { return rawfx::tool::RunCommandLine(argc, argv); }
