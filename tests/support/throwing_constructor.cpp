// A library that throws while it is opened.
namespace {
struct Thrower {
  Thrower() { throw 1; }
} thrower;
}  // namespace
