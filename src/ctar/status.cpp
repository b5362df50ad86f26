// The order in which ctar's exit statuses outweigh each other.
#include "ctar/status.h"

namespace ctar {

int Worse(int a, int b) {
  static const int order[] = {StatusUsage,   StatusUnreadable, StatusWriteFailed, StatusNotArchive,
                              StatusDamaged, StatusNotFound,   StatusWhole};
  for (int status : order)
    if (a == status || b == status) return status;
  return a;
}

}  // namespace ctar
