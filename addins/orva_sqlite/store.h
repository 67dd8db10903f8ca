#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "orva_sqlite/counters.h"
#include "orva_sqlite/segment_codec.h"
#include "orva_sqlite/segment_table.h"
#include "share/archive_provider.h"
#include "sqlite_base/database.h"
#include "sqlite_base/file_space.h"
#include "sqlite_base/schema.h"
#include "sqlite_base/store_parameters.h"

namespace orva::sqlite {

// The tables of an archive's file; docs/sqlite-format.md says what the columns hold.
extern const Schema kArchiveSchema;

// How closely Store::open() looks: at what it needs, or it makes the index anew from the rows, or
// it also has every page checked.
enum class Look { kUsual, kIndex, kWhole };

// The file of one archive as its only writer sees it: schema, rows, transactions. Used by one
// thread at a time.
class Store {
 public:
  // `maxBytes`, 0 for none, is what file and write-ahead log may take together.
  Store(const StoreParameters& parameters, std::int64_t maxBytes, Counters& counters);
  ~Store() { close(); }

  // Opens the file, or begins a new one.
  Opened open(const std::string& file, Look look);
  void close();
  bool isOpen() const { return db_.isOpen(); }
  // Makes the index of segments anew from its rows, outside of transactions. Where space is
  // lacking, or somebody holds the file, it stays as it was, and true is returned all the same.
  bool mendIndex();
  // Whether that was done, since open() was called or before it returned.
  bool indexIsNew() const { return indexIsNew_; }

  // ---- what stands in the file
  bool forEachItem(const std::function<void(std::int64_t, const archive::ItemKey&)>& visit);
  bool forEachDamaged(const std::function<void(const StreamKey&, const Segment&)>& visit);

  // ---- transactions; what happened between is undone by a failure. A `durable` one is on the disk
  // when commit() returns, as far as the parameters ask for that; one that only rearranges rows
  // need not be.
  bool begin(bool durable);
  bool commit();
  void rollback();

  void insertItem(std::int64_t handle, const archive::ItemKey& key);
  std::int64_t nextItemHandle() const { return nextItem_; }
  // A row for the samples [from, to) of `samples`, which must be in ascending time. Its id is
  // greater than every one given before.
  Segment insert(const StreamKey& key, const Columns& samples, std::size_t from, std::size_t to,
                 std::int64_t seq);
  void remove(std::int64_t id);
  // Takes a damaged row out of the way, its bytes are kept. False when it is gone already.
  bool setApart(const Segment& segment, const std::string& reason);
  void removeDamagedBefore(std::int64_t time);
  // The id that the next inserted row will have.
  std::int64_t nextSegmentId() const { return nextSegment_; }

  SegmentTable& segments() { return segments_; }
  SegmentDecoder& decoder() { return decoder_; }
  FileSpace& space() { return space_; }
  Database& db() { return db_; }

 private:
  bool prepare();
  void finalizeAll();

  const StoreParameters parameters_;
  Database db_;
  FileSpace space_;
  Counters& counters_;
  SegmentTable segments_;
  Statement insertItem_;
  Statement insertSegment_;
  Statement removeSegment_;
  Statement setApart_;
  Statement removeDamaged_;
  SegmentEncoder encoder_;
  SegmentDecoder decoder_;
  bool indexIsNew_ = false;
  std::int64_t nextItem_ = 1;
  std::int64_t nextSegment_ = 1;
};

}  // namespace orva::sqlite
