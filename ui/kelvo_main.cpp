#include "ui/driver.h"

int main(int argc, char** argv) { return kv::RunDriver(std::vector<std::string>(argv, argv + argc)); }
