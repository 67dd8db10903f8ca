#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "host/host_export.h"

// Figures for those who watch the service. An add-in registers a collector; whenever somebody asks
// the host for metrics, the host calls all collectors and serves what they give.
//
// The service is optional: in a host without it a Registration does nothing.
namespace orva::metrics {

enum class Kind {
  counter,  // never falls while its owner lives; the name ends in "_total"
  gauge,
};

// Figures of one name. A unit is part of it: "_bytes", "_seconds".
struct Family {
  const char* name;  // letters, digits and "_", "orva_" at the head
  Kind kind;
  const char* help;  // one sentence
};

// What tells the samples of a family apart. The values of a label are few and known beforehand:
// archives, queues, rules, but never items.
struct Label {
  const char* name;
  std::string value;  // UTF-8
};
using Labels = std::vector<Label>;

// Whole numbers stay exact.
class Value {
 public:
  template <class Number, class = std::enable_if_t<std::is_arithmetic_v<Number>>>
  Value(Number number) {  // NOLINT(google-explicit-constructor): any number is one
    if constexpr (std::is_floating_point_v<Number>) {
      number_ = static_cast<double>(number);
    } else if constexpr (std::is_signed_v<Number>) {
      number_ = static_cast<std::int64_t>(number);
    } else {
      number_ = static_cast<std::uint64_t>(number);
    }
  }

  using Number = std::variant<std::int64_t, std::uint64_t, double>;
  const Number& number() const { return number_; }

 private:
  Number number_;
};

// Takes what a collector gives, during its call only. Samples of a family may come in any order and
// from several collectors; of two with the same labels the first one counts.
class Sink {
 public:
  void add(const Family& family, Value value) { take(family, {}, value); }
  void add(const Family& family, const Labels& labels, Value value) { take(family, labels, value); }

 protected:
  ~Sink() = default;

 private:
  virtual void take(const Family& family, const Labels& labels, Value value) = 0;
};

// Called on a thread of the host, under none of its locks, and never twice at a time. It should be
// quick: somebody waits. What it throws is traced, what it gave before counts.
using Collector = std::function<void(Sink&)>;

// The host's side, null where there is none; use a Registration. `name` is for the log.
ORVA_HOST_API std::int64_t addCollector(const std::string& name, Collector collector)
    __attribute__((weak));
// Waits for a call in progress, except by the collector itself. Hold no lock that it takes. An id
// that is not known is fine.
ORVA_HOST_API void removeCollector(std::int64_t id) __attribute__((weak));

// A collector that is registered as long as this lives. Make it the last member of whatever the
// collector looks at.
class Registration {
 public:
  Registration() = default;
  Registration(const std::string& name, Collector collector)
      : id_(&addCollector == nullptr ? 0 : addCollector(name, std::move(collector))) {}
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;
  ~Registration() {
    if (id_ != 0 && &removeCollector != nullptr) removeCollector(id_);
  }

 private:
  std::int64_t id_ = 0;
};

}  // namespace orva::metrics
