// The tours of kiv-demo. Each subsystem shows itself in one tour, in its own file, registered by
// one line at namespace scope:
//
//   void cuckooTour(std::ostream& out);
//   KivDemo::TourRegistrar const registrar(40, "cuckoo", "Cuckoo hash table under churn",
//                                          &cuckooTour);
//
// Tours are listed and run in ascending order number, ties broken by name. A subsystem's number
// is ten times its row in the README's subsystem table (the runtime 10, the cuckoo hash table
// 40), which leaves room for a second tour of one subsystem. A tour writes only to `out` and
// prints nothing that changes from run to run (addresses, wall-clock times).
#pragma once

#include <ostream>
#include <string_view>
#include <vector>

namespace KivDemo {

struct Tour {
  int order;
  std::string_view name;
  std::string_view summary;  // one line, shown by --help and as the tour's heading
  void (*run)(std::ostream& out);
};

// Registers a tour during static initialisation; two tours with one name abort the program.
class TourRegistrar {
public:
  TourRegistrar(int order, std::string_view name, std::string_view summary,
                void (*run)(std::ostream&));
};

// Every registered tour, in order.
std::vector<Tour> const& tours();

}  // namespace KivDemo
