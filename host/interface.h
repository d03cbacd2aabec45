// Base of the abstract classes: destroyed through a pointer, never copied.
#pragma once

struct interface {
  interface() = default;
  virtual ~interface() = default;
  interface(const interface&) = delete;
  interface& operator=(const interface&) = delete;
};
