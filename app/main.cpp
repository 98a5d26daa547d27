#include "app/Startup.h"

int main(int count, char** arguments) {
  return quorvelMain({arguments, static_cast<std::size_t>(count)});
}
