#include "app/program.h"

int main(int argc, char** argv) { return qax::app::run_program(argc, argv); }
