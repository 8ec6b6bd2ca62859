"""Tests of the proof that links do what they are set to: it holds for what is right, and it can fail.

Needs Debian's python3-scipy. The simulator and the measuring client come from the environment, see CMakeLists.txt.
"""

from __future__ import annotations

import collections
import copy
import os
import tempfile
import time
import unittest
import unittest.mock
from pathlib import Path

import numpy

from measuring.fidelity import analysis, cases, fidelity, fidelitydocument, measure, replay, tables
from measuring.lab import disturbance
from measuring.lab.disturbance import USUAL, Disturbance
from measuring.lab.launcher import MeasurementFailed
from measuring.lab.makesimulation import LinkSettings

TESTS = 200  # in the family that a row is judged in
THRESHOLD = analysis.threshold(TESTS)
FRAMES = 20_000
FRAME_BYTES = 64
RELIABILITY = 0.99
MILLISECOND = analysis.NANOSECONDS_PER_MILLISECOND


def failures(row: tables.Row) -> list[str]:
    """Return what speaks against the row."""
    return row.failures(THRESHOLD)


def corruption_figures(flips: numpy.ndarray) -> dict:
    """Return what the client says when it has seen these flips: a row of zeros and ones for each frame."""
    frames = len(flips)
    counts = numpy.bincount(flips.sum(axis=1), minlength=flips.shape[1] + 1)
    return {
        "sent": frames,
        "received": frames,
        "intact": int((flips.sum(axis=1) == 0).sum()),
        "delivered": frames,
        "lost": 0,
        "strays": 0,
        "order_errors": 0,
        "replay_differences": 0,
        "frames_by_flips": counts.tolist(),
        "flips_by_bit": flips.sum(axis=0).tolist(),
    }


def random_flips(rate: float = 1 - RELIABILITY) -> numpy.ndarray:
    """Return flips as a perfect link would give them."""
    generator = numpy.random.default_rng(1)
    return (generator.random((FRAMES, FRAME_BYTES * analysis.BITS_PER_BYTE)) < rate).astype(int)


def corruption_row(figures: dict) -> tables.CorruptionRow:
    return tables.CorruptionRow(RELIABILITY, FRAME_BYTES, 0.0, figures)


class TestFormulas(unittest.TestCase):
    """What a link has to do."""

    def test_the_frame_error_rate_is_exact_at_both_ends(self) -> None:
        self.assertEqual(analysis.frame_error_rate(1.0, 1500), 0.0)
        self.assertEqual(analysis.frame_error_rate(0.0, 12), 1.0)
        self.assertAlmostEqual(analysis.frame_error_rate(0.5, 1), 1 - 1 / 256, places=15)
        self.assertAlmostEqual(analysis.frame_error_rate(1 - 1e-12, 12) / 96e-12, 1.0, places=3)

    def test_delays_lie_as_the_deviation_says(self) -> None:
        ranges = {(100, 10): (95, 104), (10, 3): (9, 11), (10, 2): (9, 10), (10, 1): (10, 10), (0, 10): (0, 4)}
        for setting, expected in ranges.items():
            with self.subTest(setting):
                shares = analysis.delay_shares(*setting)
                self.assertEqual((min(shares), max(shares)), expected)
                self.assertAlmostEqual(sum(shares.values()), 1.0)
                for deadline in range(expected[1] + 2):
                    in_time = sum(share for delay, share in shares.items() if delay <= deadline)
                    self.assertAlmostEqual(analysis.share_in_time(deadline, *setting), in_time)

    def test_delays_below_nothing_count_as_none(self) -> None:
        self.assertAlmostEqual(analysis.delay_shares(0, 10)[0], 0.6)

    def test_the_interval_is_that_of_the_text_books(self) -> None:
        for count, expected in ((0, (0.0, 0.3085)), (5, (0.1871, 0.8129)), (10, (0.6915, 1.0))):
            for found, bound in zip(analysis.interval(count, 10, 0.05), expected):
                self.assertAlmostEqual(found, bound, places=4)

    def test_a_share_fails_exactly_outside_of_its_interval(self) -> None:
        low, high = analysis.interval(500, 1000, THRESHOLD)
        for share, fails in ((low - 1e-6, True), (low + 1e-6, False), (high - 1e-6, False), (high + 1e-6, True)):
            self.assertEqual(analysis.share_fit(500, 1000, share).p_value < THRESHOLD, fails)

    def test_small_classes_are_joined(self) -> None:
        observed, expected = analysis.joined([1, 2, 30, 1, 1], [2.0, 4.0, 30.0, 1.0, 0.5])
        self.assertEqual((observed.tolist(), expected.tolist()), ([3, 32], [6.0, 31.5]))

    def test_the_replay_draws_the_documented_numbers(self) -> None:
        middle = replay.MODULUS // 2  # with these settings the delays are the numbers
        drawn = replay.delays(1, 3, frame_bytes=0, delay=middle, deviation=replay.MODULUS)
        self.assertEqual(drawn, [48271, 182605794, 1291394886])

    def test_the_replay_leaves_a_number_to_each_bit(self) -> None:
        middle = replay.MODULUS // 2
        numbers = replay.delays(1, 10, frame_bytes=0, delay=middle, deviation=replay.MODULUS)
        drawn = replay.delays(1, 2, frame_bytes=1, delay=middle, deviation=replay.MODULUS)
        self.assertEqual(drawn, [numbers[0], numbers[9]])


class TestCorruptionVerdicts(unittest.TestCase):
    """A row of flips holds when they are a perfect link's, and fails when they are not."""

    def setUp(self) -> None:
        self.flips = random_flips()

    def test_perfect_flips_hold(self) -> None:
        self.assertEqual(failures(corruption_row(corruption_figures(self.flips))), [])

    def test_a_rate_that_is_a_little_off_fails(self) -> None:
        self.assertNotEqual(failures(corruption_row(corruption_figures(random_flips(0.0108)))), [])

    def test_a_favoured_bit_fails(self) -> None:
        self.flips[:300, 77] = 1  # 500 flips instead of 200, among 512 bits
        self.assertNotEqual(failures(corruption_row(corruption_figures(self.flips))), [])

    def test_the_allowance_for_the_generator_is_small(self) -> None:
        shares = numpy.array([0.25, 0.25, 0.25, 0.25])
        for off, fails in ((0.005, False), (0.01, True)):
            observed = 1_000_000 * shares * (1 + off * numpy.array([1, -1, 1, -1]))
            fit = analysis.chi_square(observed, 1_000_000 * shares, analysis.GENERATOR_DEVIATION)
            self.assertEqual(fit.p_value < THRESHOLD, fails)

    def test_flips_in_pairs_fail_though_their_number_is_right(self) -> None:
        half = random_flips((1 - RELIABILITY) / 2)
        paired = numpy.maximum(half, numpy.roll(half, 1, axis=1))
        self.assertNotEqual(failures(corruption_row(corruption_figures(paired))), [])

    def test_each_exact_fact_matters(self) -> None:
        good = corruption_figures(self.flips)
        for name in ("order_errors", "strays", "replay_differences", "lost"):
            with self.subTest(name):
                figures = copy.deepcopy(good)
                figures[name] += 1
                self.assertNotEqual(failures(corruption_row(figures)), [])

    def test_a_single_flip_at_reliability_one_fails(self) -> None:
        flips = numpy.zeros_like(self.flips)
        row = tables.CorruptionRow(1.0, FRAME_BYTES, 0.0, corruption_figures(flips))
        self.assertEqual(failures(row), [])
        flips[5, 5] = 1
        row = tables.CorruptionRow(1.0, FRAME_BYTES, 0.0, corruption_figures(flips))
        self.assertNotEqual(failures(row), [])

    def test_detection_that_is_a_little_off_fails(self) -> None:
        good = {**corruption_figures(self.flips), "received": 10_000, "intact": 0, "delivered": 10_000, "lost": 10_000}
        self.assertEqual(failures(tables.DetectionRow(RELIABILITY, FRAME_BYTES, 0.5, good)), [])
        bad = {**good, "received": 10_400, "delivered": 10_400, "lost": 9_600}
        self.assertNotEqual(failures(tables.DetectionRow(RELIABILITY, FRAME_BYTES, 0.5, bad)), [])


class TestDelayVerdicts(unittest.TestCase):
    """Rows of delays, by deadline and by the clock."""

    DEADLINES = list(range(4, 15))

    def row(self, in_time: list[int], frames: int = 10_000, delay: int = 10) -> tables.DelayRow:
        figures = {name: [frames] * len(in_time) for name in ("sent", "received")}
        figures.update({name: [0] * len(in_time) for name in ("lost", "strays", "order_errors")}, delivered=in_time)
        return tables.DelayRow(LinkSettings(), LinkSettings(), delay, 10, self.DEADLINES, figures, in_time)

    def test_the_formula_itself_holds(self) -> None:
        self.assertEqual(failures(self.row([1000 * step for step in range(11)])), [])

    def test_delays_a_millisecond_longer_fail(self) -> None:
        self.assertNotEqual(failures(self.row([0] + [1000 * step for step in range(10)])), [])

    def test_one_frame_below_the_shortest_delay_fails(self) -> None:
        self.assertNotEqual(failures(self.row([1] + [1000 * step for step in range(1, 11)])), [])

    def test_one_share_that_is_off_fails(self) -> None:
        counts = [1000 * step for step in range(11)]
        counts[5] += 300
        self.assertNotEqual(failures(self.row(counts)), [])

    def test_a_count_that_the_replay_does_not_have_fails(self) -> None:
        row = self.row([1000 * step for step in range(11)])
        row.replayed = [count + 1 for count in row.replayed]
        self.assertIn("differs from the replay", failures(row))

    def test_each_exact_fact_matters(self) -> None:
        for name in ("received", "lost", "strays", "order_errors"):
            with self.subTest(name):
                row = self.row([1000 * step for step in range(11)])
                row.figures[name][5] += 1
                self.assertNotEqual(failures(row), [])

    def punctuality_row(self, lateness_us: int, wanted_rate: float = 1000) -> tables.PunctualityRow:
        sent = numpy.arange(100) * MILLISECOND
        delays = [10, 5] * 50
        due = numpy.sort(sent + numpy.array(delays) * MILLISECOND)
        errors = analysis.delivery_errors(sent, due + lateness_us * 1000, delays)
        return tables.PunctualityRow(10, 10, wanted_rate, sent, errors, errors.min(), fidelity.Effort().punctuality)

    def test_punctual_frames_hold(self) -> None:
        self.assertEqual(failures(self.punctuality_row(100)), [])

    def test_early_and_late_frames_fail(self) -> None:
        self.assertNotEqual(failures(self.punctuality_row(-1)), [])
        self.assertNotEqual(failures(self.punctuality_row(2000)), [])

    def test_a_load_that_was_not_reached_fails(self) -> None:
        self.assertEqual(failures(self.punctuality_row(100, wanted_rate=1020)), [])
        self.assertEqual(failures(self.punctuality_row(100, wanted_rate=1050)), ["only 1,000 frames/s"])

    def clock_row(self, delays: list[int]) -> tables.ClockRow:
        sent = numpy.arange(len(delays)) * 20 * MILLISECOND
        readings = analysis.clock_readings(sent, sent + numpy.array(delays) * MILLISECOND + 200_000)
        return tables.ClockRow(10, 10, readings, numpy.array(delays), timer_in_time=1.0)

    def test_even_readings_of_the_clock_hold(self) -> None:
        self.assertEqual(failures(self.clock_row(list(range(5, 15)) * 60)), [])

    def test_uneven_readings_of_the_clock_fail(self) -> None:
        self.assertNotEqual(failures(self.clock_row([5] * 100 + list(range(5, 15)) * 50)), [])


class TestCaseVerdicts(unittest.TestCase):
    """A case of the confirmations fails when something else comes, or comes too early."""

    CASE = cases.Case("lost", (cases.LOST,))

    def test_losses_at_the_deadline_hold(self) -> None:
        self.assertEqual(cases.Outcome(lost=cases.FRAMES, first_loss=0.06).deviations(self.CASE), [])

    def test_a_loss_before_the_deadline_fails(self) -> None:
        found = cases.Outcome(lost=cases.FRAMES, first_loss=0.059).deviations(self.CASE)
        self.assertEqual(found, ["reported lost after 59.0 ms"])

    def test_a_confirmation_behind_the_first_frame_is_not_at_once(self) -> None:
        case = cases.Case("broadcast", destination=cases.BROADCAST, is_confirmed_at_once=True)
        received = collections.Counter({cases.RECEIVER: cases.FRAMES})
        outcome = cases.Outcome(delivered=cases.FRAMES, received=received, confirmed_first=cases.FRAMES - 1)
        self.assertEqual(outcome.deviations(case), ["not confirmed at once"])


class TestDocument(unittest.TestCase):
    """What becomes of a row that fails."""

    def result(self, errors: int) -> fidelitydocument.Result:
        return fidelitydocument.Result(
            {"order": [tables.OrderRow(measure.Counts(1, 1000, 900, errors))]}, numpy.array([1.0]), 1
        )

    def test_a_failing_row_shows_in_table_and_summary(self) -> None:
        result = self.result(errors=3)
        self.assertEqual(len(result.failed()), 1)
        self.assertIn(tables.FAILS, tables.markdown(result.rows["order"], THRESHOLD))
        self.assertIn("3 out of order", fidelitydocument.summary(result))

    def test_a_row_that_holds_is_no_failure(self) -> None:
        self.assertEqual(self.result(errors=0).failed(), [])

    def test_what_leaves_nothing_to_chance_is_no_member_of_the_family(self) -> None:
        whole = corruption_figures(numpy.zeros((FRAMES, FRAME_BYTES * analysis.BITS_PER_BYTE), int))
        fixed = tables.DelayRow(
            LinkSettings(), LinkSettings(), 10, 0, [9, 10], {"sent": [5, 5], "delivered": [5, 5]}, []
        )
        result = self.result(errors=0)
        result.rows["exact"] = [tables.CorruptionRow(1.0, FRAME_BYTES, 0.0, whole), fixed]
        self.assertEqual(result.tests(), 0)
        result.rows["random"] = [corruption_row(corruption_figures(random_flips()))]
        self.assertEqual(result.tests(), 3)


class PlannedRuns(measure.Laboratory):
    """Its runs are disturbed as planned; their figures tell which they are."""

    def __init__(self, *stolen: float) -> None:
        super().__init__("simulator", "client", "folder", seed=1)
        self.planned = [Disturbance(share, waited=0.0, late=0.0) for share in stolen]
        self.seeds = []
        self.figures = lambda _run: {}

    def run_once(self, seed: int, *_what) -> tuple:
        self.seeds.append(seed)
        run = len(self.seeds)
        figures = {"run": run, "runs": 1, "order_errors": 0, "earliest_us": 0.0, **self.figures(run)}
        return figures, self.planned[run - 1]

    def measure_planned(self, limits: Disturbance, tries: int) -> int:
        """Return which run counts."""
        return self.measure_quietly(limits, tries, self.run_once)["run"]


class TestDisturbance(unittest.TestCase):
    """Time measured while others have the processor."""

    def test_an_undisturbed_run_is_not_repeated(self) -> None:
        laboratory = PlannedRuns(0.0, 0.0)
        self.assertEqual(laboratory.measure_planned(USUAL, 5), 1)
        self.assertEqual((len(laboratory.seeds), laboratory.repeated, laboratory.disturbed), (1, 0, 0))

    def test_a_disturbed_run_is_repeated_with_its_seed_until_one_is_quiet(self) -> None:
        laboratory = PlannedRuns(0.3, 0.2, 0.0, 0.0)
        self.assertEqual(laboratory.measure_planned(USUAL, 5), 3)
        self.assertEqual(len(set(laboratory.seeds)), 1)
        self.assertEqual((len(laboratory.seeds), laboratory.repeated, laboratory.disturbed), (3, 1, 0))

    def test_of_disturbed_runs_the_least_disturbed_counts(self) -> None:
        laboratory = PlannedRuns(0.3, 0.1, 0.2)
        self.assertEqual(laboratory.measure_planned(USUAL, 3), 2)
        self.assertEqual((laboratory.repeated, laboratory.disturbed), (1, 1))

    def go_on_from(self, earlier: PlannedRuns, *stolen: float) -> PlannedRuns:
        """Return a laboratory that has what another run has kept."""
        later = PlannedRuns(*stolen)
        later.timings = earlier.timings
        return later

    def test_a_quiet_run_that_was_kept_is_not_made_again(self) -> None:
        first = PlannedRuns(0.0)
        first.measure_planned(USUAL, 3)
        second = self.go_on_from(first, 0.0)
        self.assertEqual(second.measure_planned(USUAL, 3), 1)
        self.assertEqual((second.seeds, second.repeated, second.disturbed), ([], 0, 0))

    def test_a_disturbed_run_that_was_kept_is_made_again_with_its_seed(self) -> None:
        first = PlannedRuns(0.3)
        first.measure_planned(USUAL, 1)
        second = self.go_on_from(first, 0.2, 0.0)
        self.assertEqual(second.measure_planned(USUAL, 3), 2)
        self.assertEqual(second.seeds, 2 * first.seeds)
        self.assertEqual((second.repeated, second.disturbed), (1, 0))

    def test_a_kept_run_counts_when_the_later_ones_are_more_disturbed(self) -> None:
        first = PlannedRuns(0.1)
        first.figures = lambda _run: {"run": "kept"}
        first.measure_planned(USUAL, 1)
        second = self.go_on_from(first, 0.3, 0.2)
        self.assertEqual(second.measure_planned(USUAL, 2), "kept")

    def test_all_runs_of_a_measurement_are_counted(self) -> None:
        first = PlannedRuns(0.3, 0.2)
        first.measure_planned(USUAL, 2)
        second = self.go_on_from(first, 0.0)
        self.assertEqual(second.measure_quietly(USUAL, 2, second.run_once)["runs"], 3)

    def test_frames_out_of_order_count_in_discarded_runs_too(self) -> None:
        laboratory = PlannedRuns(0.3, 0.0)
        laboratory.figures = lambda run: {"sent_ns": [0], "arrived_ns": [1], "order_errors": 7 if run == 1 else 0}
        measure.measure_timing(laboratory, 2, 1, 0, 0, rate=0)
        self.assertEqual(laboratory.counts.order_errors, 7)

    def test_an_early_frame_of_a_discarded_run_fails_the_row(self) -> None:
        laboratory = PlannedRuns(0.3, 0.0)
        laboratory.figures = lambda run: {
            "sent_ns": [0, 1_000_000],
            "arrived_ns": [2_000_000 if run == 2 else 500_000, 4_000_000],
            "round_trips_ns": [],
        }
        effort = fidelity.Effort(delays=(1,), deviations=(0,), idle_frames=2, loaded_frames=2, punctuality={})
        laboratory.planned *= 2
        row = fidelity.punctuality_rows(laboratory, effort, [])[0]
        self.assertGreaterEqual(row.errors.min(), 0)
        self.assertEqual(failures(row), ["500 µs early"])

    def test_repetitions_leave_the_seeds_of_later_measurements_alone(self) -> None:
        quiet, disturbed = PlannedRuns(0.0), PlannedRuns(0.3, 0.3, 0.3)
        for laboratory in (quiet, disturbed):
            laboratory.measure_planned(USUAL, 3)
        self.assertEqual(quiet.next_seed(), disturbed.next_seed())

    def test_waiting_disturbs_as_stealing_does(self) -> None:
        self.assertTrue(Disturbance(stolen=0.0, waited=0.5).exceeds(USUAL))
        self.assertFalse(Disturbance(stolen=0.0, waited=0.0).exceeds(USUAL))

    def test_a_plain_timer_that_wakes_up_late_disturbs_lone_frames(self) -> None:
        self.assertTrue(Disturbance(stolen=0.0, waited=0.0, late=0.1).exceeds(measure.LONE))
        self.assertFalse(Disturbance(stolen=0.0, waited=0.0, late=0.0).exceeds(measure.LONE))
        self.assertFalse(Disturbance(stolen=0.0, waited=0.0, late=0.1).exceeds(USUAL))

    def test_of_runs_alike_that_with_the_timer_in_time_counts(self) -> None:
        laboratory = PlannedRuns(0.0, 0.0)
        laboratory.planned[0].late = 0.1
        self.assertEqual(laboratory.measure_planned(measure.LONE, 2), 2)

    def test_the_late_wake_ups_of_a_timer_are_told(self) -> None:
        for limit, share in ((0.0, 1.0), (60.0, 0.0)):
            with (
                unittest.mock.patch.object(disturbance, "LATE_WAKE_UP", limit),
                disturbance.TimerWatch(min(os.sched_getaffinity(0))) as timer,
            ):
                while timer.wake_ups < 3:
                    time.sleep(0.001)
            self.assertEqual(timer.late(), share)


class TestMeasuring(unittest.TestCase):
    """The whole way with the simulator; what it was set to is not always what the measuring is told."""

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.kept_file = Path(self.folder) / "build" / "kept.pickle"
        self.laboratory = self.new_laboratory()

    def new_laboratory(self) -> measure.Laboratory:
        programs = (os.environ["LATTIVO_HEADLESS"], os.environ["LATTIVO_FIDELITY_CLIENT"])
        return measure.Laboratory(*programs, self.folder, seed=1)

    def corruption(self, reliability: float, detection: float = 0.0, claimed: float = None) -> dict:
        return measure.measure_corruption(self.laboratory, FRAMES, FRAME_BYTES, reliability, detection, claimed)

    def test_a_link_that_does_as_set_holds(self) -> None:
        self.assertEqual(failures(corruption_row(self.corruption(RELIABILITY))), [])

    def test_a_link_that_is_off_by_one_in_a_thousand_fails(self) -> None:
        found = failures(corruption_row(self.corruption(RELIABILITY - 0.001, claimed=RELIABILITY)))
        self.assertTrue(any(text.startswith("p = ") for text in found), found)
        self.assertTrue(any("replay" in text for text in found), found)

    def test_the_same_seed_gives_the_same_figures(self) -> None:
        first = self.corruption(RELIABILITY, detection=0.5)
        self.laboratory = self.new_laboratory()
        self.assertEqual(self.corruption(RELIABILITY, detection=0.5), first)

    def test_only_frames_that_arrive_whole_have_a_place_where_some_are_lost(self) -> None:
        figures = self.corruption(RELIABILITY, detection=0.5)
        self.assertEqual(self.laboratory.counts.sent, FRAMES)
        self.assertEqual(self.laboratory.counts.placed, figures["intact"])
        self.assertLess(figures["intact"], figures["received"])

    def test_times_measured_later_go_on_where_the_other_rows_ended(self) -> None:
        effort = fidelity.Effort(
            frames=FRAMES,
            frames_of_large=FRAMES,
            deadline_frames=FRAMES,
            reliabilities=(1.0,),
            sizes=(FRAME_BYTES,),
            detection_links=(),
            delays=(1,),
            deviations=(0,),
        )
        kept = fidelity.new_kept(self.laboratory, effort)
        kept.save(self.kept_file)
        first, self.laboratory = self.laboratory, self.new_laboratory()
        taken = fidelity.kept_before(self.laboratory, self.kept_file)
        self.assertEqual(taken.rows.keys(), kept.rows.keys())
        self.assertEqual(taken.rows["delays"], kept.rows["delays"])
        self.assertEqual(self.laboratory.counts, first.counts)
        self.assertEqual(self.laboratory.next_seed(), first.next_seed())

    def test_times_alone_need_an_earlier_run(self) -> None:
        with self.assertRaises(MeasurementFailed):
            fidelity.kept_before(self.laboratory, self.kept_file)

    def test_times_of_another_build_of_the_simulator_are_not_gone_on_with(self) -> None:
        fidelity.Kept("another", {}, self.laboratory.counts, {}).save(self.kept_file)
        with self.assertRaises(MeasurementFailed):
            fidelity.kept_before(self.laboratory, self.kept_file)

    def test_detection_other_than_claimed_fails(self) -> None:
        figures = self.corruption(RELIABILITY, detection=0.55)
        self.assertEqual(failures(tables.DetectionRow(RELIABILITY, FRAME_BYTES, 0.55, figures)), [])
        self.assertNotEqual(failures(tables.DetectionRow(RELIABILITY, FRAME_BYTES, 0.5, figures)), [])

    def test_a_deviation_other_than_claimed_fails(self) -> None:
        effort = fidelity.Effort(deadline_frames=FRAMES)
        row = fidelity.delay_row(self.laboratory, effort, (10, 10), (0, 0), (10, 10))
        self.assertEqual(failures(row), [])
        row = fidelity.delay_row(self.laboratory, effort, (10, 11), (0, 0), (10, 10))
        self.assertNotEqual(failures(row), [])

    def test_no_frame_is_early(self) -> None:
        effort = fidelity.Effort(delays=(2,), deviations=(3,), idle_frames=20, loaded_frames=2000, punctuality={})
        for row in fidelity.punctuality_rows(self.laboratory, effort, []):
            self.assertEqual(failures(row), [])

    def test_a_confirmation_that_does_not_come_fails(self) -> None:
        late = cases.Case("late", links=(LinkSettings(delay=cases.LATER),), patience=0.5)
        self.assertEqual(cases.measure_case(self.laboratory, late).deviations(late), ["counts"])


if __name__ == "__main__":
    unittest.main()
