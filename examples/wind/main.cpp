#include "program.h"

int main(int argc, char **argv) { return Wind::RunProgram(argc, argv, stdout, stderr); }
