#include <vector>

#include "support/archive_fixture.h"
#include "support/scripted_provider.h"
#include "unit/orva_database/layer_fixture.h"

// Answers that a layer has no use for.

namespace orva::cache {
namespace {

using archive::SharedInterval;
using test::realPins;

class LayerEndsTest : public LayerFixture {
 protected:
  void insert(std::int64_t from, std::int64_t to) {
    const SharedInterval interval = newItem({})->addInterval(3, from, to);
    for (const PinPtr& pin : realPins(10, 100)) interval->push(pin);
    interval->finalize();
    layer->insert(interval);
  }
};

TEST_F(LayerEndsTest, ALayerThatIsNotCachedTakesNothingIn) {
  makeLayer(description(false));
  insert(5, 0);
  std::vector<PinPtr> pins = realPins(10, 100);
  layer->assign(5, 0, pins);
  EXPECT_EQ(pins.size(), 100U);
  EXPECT_TRUE(layer->describe().empty());
  EXPECT_EQ(asked(load({10, 20})).size(), 1U) << "the archive is asked as before";
}

TEST_F(LayerEndsTest, AStretchThatEndsBeforeItBeginsVouchesForNothing) {
  insert(200, 5);
  std::vector<PinPtr> pins = realPins(10, 100);
  layer->assign(200, 5, pins);
  EXPECT_TRUE(blocks().empty());
  EXPECT_EQ(asked(load({10, 20})).size(), 1U);
}

}  // namespace
}  // namespace orva::cache
