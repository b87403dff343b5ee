// Smallest program using the installed headers and library; it fails if
// the package does not carry include paths, C++20 or the shared library.
#include <Zel/Entity.h>

#include <cstdio>

namespace {

class Greeting : public Zel::PtrInterface {
public:
  explicit Greeting(int n) : n_(n) {}
  int n() const { return n_; }

private:
  int n_;
};

}  // namespace

int main() {
  Zel::Ptr<Greeting> g = Zel::allocate<Greeting>(42);
  std::printf("libKiv consumer: %d, references %u\n", g->n(), unsigned(g->references()));
  return g->n() == 42 ? 0 : 1;
}
