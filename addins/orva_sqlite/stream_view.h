#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "orva_sqlite/catalog.h"
#include "orva_sqlite/damage_register.h"
#include "orva_sqlite/reader_pool.h"
#include "orva_sqlite/write_buffer.h"

namespace orva::sqlite {

// Takes samples in ascending time. False when it wants no more.
class SampleSink {
 public:
  virtual bool take(const PinPtr* first, std::size_t count) = 0;
  // How many more it wants; a reader makes no more than it takes in the end.
  virtual std::uint64_t room() const = 0;

 protected:
  ~SampleSink() = default;
};

// One stream as of one moment, from the write buffer and the file together: every sample that was
// accepted before the view was made, none of them twice. For one thread, and for one read.
class StreamView {
 public:
  // Samples from `from` to `to`, both included, can be asked for. The file is not touched when it
  // holds none of them.
  StreamView(const Stream& stream, std::int64_t from, std::int64_t to, const WriteBuffer& buffer,
             ReaderPool& pool, DamageRegister& damage);
  ~StreamView();
  StreamView(const StreamView&) = delete;
  StreamView& operator=(const StreamView&) = delete;

  // Null when there is none.
  PinPtr newest(std::int64_t from, std::int64_t to);
  PinPtr oldest(std::int64_t from, std::int64_t to);
  // False when the sink stopped it.
  bool range(std::int64_t from, std::int64_t to, SampleSink& sink);

  bool readsFile() const { return reader_ != nullptr; }
  // The file holds what was asked for, but could not be read.
  bool unavailable() const { return unavailable_; }
  const std::string& problem() const { return problem_; }
  // A damaged segment lies where something was looked for.
  bool metDamage() const { return metDamage_; }

 private:
  bool openFile();
  void closeFile();
  bool decode(const SegmentTable::Cursor& cursor);
  bool rangeOfSegment(std::int64_t from, std::int64_t to, SampleSink& sink);
  bool emit(const PinPtr& pin, SampleSink& sink);
  bool flush(SampleSink& sink);
  void checkFailure();
  void checkDamage(std::int64_t from, std::int64_t to);

  const Stream& stream_;
  StreamKey key_;
  ReaderPool& pool_;
  DamageRegister& damage_;
  std::unique_ptr<FileReader> reader_;
  std::vector<PinPtr> tail_;   // what is not in the file, ascending
  std::size_t tailAt_ = 0;     // the next one that range() gives
  std::vector<PinPtr> chunk_;  // what range() has made and not yet handed over
  bool unavailable_ = false;
  bool metDamage_ = false;
  std::string problem_;
};

}  // namespace orva::sqlite
