#include "tervik_kiv_test_main.h"

int main(int argc, char** argv) {
  return tervik_kiv_test_main(argc, argv);
}
