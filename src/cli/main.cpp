#include "cli/driver.h"

int main(int argc, char** argv) { return symlift::cli::runMain(argc, argv); }
