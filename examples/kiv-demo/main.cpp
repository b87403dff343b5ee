// kiv-demo: runs every tour in order, or the one named on the command line.
#include "Tour.h"

#include <Zel/Assert.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <tuple>

namespace KivDemo {

namespace {

// A function-local registry, so that registrars in other files may run before this file's
// statics are initialised.
std::vector<Tour>& registry() {
  static std::vector<Tour> all;
  return all;
}

bool runsBefore(Tour const& a, Tour const& b) {
  return std::tie(a.order, a.name) < std::tie(b.order, b.name);
}

Tour const* findTour(std::string_view name) {
  for (Tour const& tour : tours()) {
    if (tour.name == name) return &tour;
  }
  return nullptr;
}

}  // namespace

TourRegistrar::TourRegistrar(int order, std::string_view name, std::string_view summary,
                             void (*run)(std::ostream&)) {
  ZEL_CHECK(findTour(name) == nullptr, "kiv-demo: tour '" << name << "' is registered twice");
  Tour tour{order, name, summary, run};
  auto& all = registry();
  all.insert(std::upper_bound(all.begin(), all.end(), tour, runsBefore), tour);
}

std::vector<Tour> const& tours() { return registry(); }

}  // namespace KivDemo

namespace {

void printTourList(std::ostream& out) {
  std::size_t width = 0;
  for (auto const& tour : KivDemo::tours()) width = std::max(width, tour.name.size());
  out << "tours:\n";
  for (auto const& tour : KivDemo::tours()) {
    out << "  " << tour.name << std::string(width - tour.name.size() + 2, ' ') << tour.summary
        << '\n';
  }
}

void printUsage(std::ostream& out) {
  out << "usage: kiv-demo [--help] [tour]\n"
         "Without a tour, runs every tour in the order below.\n\n";
  printTourList(out);
}

// A failing tour reports and lets the others run; the program then exits non-zero.
bool runTour(KivDemo::Tour const& tour) {
  std::cout << "== " << tour.name << ": " << tour.summary << "\n\n";
  try {
    tour.run(std::cout);
  } catch (std::exception const& e) {
    std::cout.flush();
    std::cerr << "kiv-demo: tour '" << tour.name << "' failed: " << e.what() << '\n';
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2) {
    printUsage(std::cerr);
    return 2;
  }
  if (argc == 2) {
    std::string_view const arg = argv[1];
    if (arg == "--help" || arg == "-h") {
      printUsage(std::cout);
      return 0;
    }
    KivDemo::Tour const* tour = KivDemo::findTour(arg);
    if (!tour) {
      std::cerr << "kiv-demo: unknown tour '" << arg << "'\n";
      printTourList(std::cerr);
      return 2;
    }
    return runTour(*tour) ? 0 : 1;
  }
  bool allPassed = true;
  bool first = true;
  for (auto const& tour : KivDemo::tours()) {
    if (!first) std::cout << '\n';
    first = false;
    allPassed = runTour(tour) && allPassed;
  }
  return allPassed ? 0 : 1;
}
