// SPDX-License-Identifier: MIT
#ifndef DORVE_UTIL_DESCRIPTOR_H_
#define DORVE_UTIL_DESCRIPTOR_H_

namespace dorve {

/// Owns a file descriptor, or none; movable, not copyable. The destructor closes it.
class Descriptor {
 public:
  /// Takes ownership of `owned`. A negative number is no descriptor.
  explicit Descriptor(int owned = -1) : fd(owned) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor(Descriptor&& other) noexcept : fd(other.fd) { other.fd = -1; }
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { close(); }

  /// The number of the descriptor; negative if there is none.
  int get() const { return fd; }

  /// Whether there is a descriptor.
  explicit operator bool() const { return fd >= 0; }

  /// Closes the descriptor, if there is one. Reports no failure.
  void close();

 private:
  int fd;
};

}  // namespace dorve

#endif  // DORVE_UTIL_DESCRIPTOR_H_
