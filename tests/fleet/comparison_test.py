"""What the proof of the fleet compares with, tried on small histories; scripts/fleet-proof.sh runs it."""

import unittest

import history
from cases import holes, without_overtaken
from fleet import Source
from history import Sample


class FakeHost:
    number = 1


def samples(*times):
    return [Sample(time, float(time), 0) for time in times]


MARK = Sample(35, -1.0, 0)


class DifferencesTest(unittest.TestCase):
    def told(self, expected, found):
        return " | ".join(history.differences("Item", expected, found))

    def test_equal_histories_have_none(self):
        self.assertEqual(self.told(samples(1, 2, 2), samples(1, 2, 2)), "")

    def test_a_missing_sample_is_told(self):
        self.assertIn("time=2, value=2.0, quality=0) is missing", self.told(samples(1, 2), samples(1)))

    def test_a_sample_that_is_there_twice_is_told(self):
        self.assertIn("twice", self.told(samples(1, 2), samples(1, 2, 2)))

    def test_another_value_quality_or_time_is_told(self):
        for other in (Sample(1, 2.0, 0), Sample(1, 1.0, 5), Sample(2, 1.0, 0)):
            self.assertIn("is missing", self.told(samples(1), [other]))

    def test_disorder_is_told(self):
        self.assertIn("comes after", self.told(samples(1, 2), samples(2, 1)))
        swapped = [Sample(1, "b", 0), Sample(1, "a", 0)]
        self.assertIn("another order", self.told(swapped[::-1], swapped))


class PagesTest(unittest.TestCase):
    def test_no_page_ends_inside_a_millisecond(self):
        self.assertEqual(history.page_size([samples(1, 2, 3, 3, 4)], 2), 6)
        self.assertEqual(history.page_size([samples(1, 2, 2, 3, 4)], 2), 5)


class LostStoreTest(unittest.TestCase):
    def setUp(self):
        self.source = Source(FakeHost())
        self.path = self.source.paths[0]
        self.source.before[self.path] = samples(1, 2, 3)

    def test_what_is_newer_than_the_lost_store_is_expected_behind_it(self):
        self.assertEqual(self.source.expected(self.path, samples(4, 5), []),
                         (samples(1, 2, 3, 4, 5), 0))

    def test_what_is_older_comes_too_late(self):
        self.assertEqual(self.source.expected(self.path, samples(1, 2, 4), []),
                         (samples(1, 2, 3, 4), 2))


class MarkTest(unittest.TestCase):
    def test_the_samples_between_the_last_one_pulled_and_the_mark_are_refused(self):
        found = samples(10, 20) + [MARK] + samples(40)
        self.assertEqual(without_overtaken(samples(10, 20, 25, 30, 40), found), found)

    def test_none_but_these(self):
        found = samples(10) + [MARK] + samples(50)
        self.assertEqual(without_overtaken(samples(10, 20, 40, 50), found),
                         samples(10) + [MARK] + samples(40, 50))

    def test_nothing_older_follows_a_mark_in_the_future(self):
        found = samples(10) + [MARK] + samples(40) + [Sample(3600, -1.0, 0)]
        self.assertEqual(without_overtaken(samples(10, 20, 40, 50, 60), found), found)


class HolesTest(unittest.TestCase):
    def test_cycles_left_out_are_counted_and_new_runs_are_not(self):
        values = [1, 2, 2, 1, 2, 5, 6]
        self.assertEqual(holes([Sample(at, value, 0) for at, value in enumerate(values)]), 2)
        self.assertEqual(holes([Sample(1, "step 3", 0), Sample(2, "step 7", 0)]), 3)


if __name__ == "__main__":
    unittest.main()
