#include <gtest/gtest.h>
#include <zr/zrerror.h>
#include <zr/zrmetrics.h>

#include <limits>
#include <thread>
#include <vector>

using ZR::ZRMetricLabels;
using ZR::ZRMetrics;

namespace {

const ZRMetrics::FamilyValues* familyIn(const std::vector<ZRMetrics::FamilyValues>& families,
                                        const std::string& name) {
  for (const auto& family : families) {
    if (family.name == name) return &family;
  }
  return nullptr;
}

TEST(ZRMetrics, ACounterCountsAndTheSameNameAndLabelsGiveTheSameSeries) {
  ZRMetrics metrics;
  ZR::ZRCounter& first = metrics.counter("jobs_total", "Jobs.", {{"kind", "a"}});
  ZR::ZRCounter& again = metrics.counter("jobs_total", "Jobs.", {{"kind", "a"}});
  ZR::ZRCounter& other = metrics.counter("jobs_total", "Jobs.", {{"kind", "b"}});
  EXPECT_EQ(&first, &again);
  EXPECT_NE(&first, &other);
  first.increment();
  again.increment(4);
  EXPECT_EQ(5u, first.value());
  EXPECT_EQ(0u, other.value());
}

TEST(ZRMetrics, AGaugeGoesUpAndDown) {
  ZRMetrics metrics;
  ZR::ZRGauge& gauge = metrics.gauge("open", "Open things.");
  gauge.set(7);
  gauge.add(-3);
  EXPECT_EQ(4, gauge.value());
  EXPECT_EQ(&gauge, &metrics.gauge("open", "Open things."));
}

TEST(ZRMetrics, AHistogramCountsEachObservationInTheFirstBucketAtOrAboveIt) {
  ZRMetrics metrics;
  ZR::ZRHistogram& histogram = metrics.histogram("wait_seconds", "Waits.", {0.1, 1, 10});
  for (double value : {0.05, 0.1, 0.5, 1.0, 3.0, 100.0}) histogram.observe(value);
  histogram.observe(std::numeric_limits<double>::quiet_NaN());  // not counted
  const ZR::ZRHistogram::Snapshot snapshot = histogram.snapshot();
  // le=0.1: 0.05 and 0.1; le=1: and 0.5, 1; le=10: and 3; +Inf: and 100.
  EXPECT_EQ((std::vector<std::uint64_t>{2, 4, 5, 6}), snapshot.cumulative);
  EXPECT_EQ(6u, snapshot.count);
  EXPECT_DOUBLE_EQ(104.65, snapshot.sum);
}

TEST(ZRMetrics, CountsFromManyThreadsAreAllKept) {
  ZRMetrics metrics;
  ZR::ZRCounter& counter = metrics.counter("hits_total", "Hits.");
  ZR::ZRHistogram& histogram = metrics.histogram("hit_seconds", "Hit times.", {1});
  constexpr int kThreads = 4;
  constexpr int kEach = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        counter.increment();
        histogram.observe(0.5);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(static_cast<std::uint64_t>(kThreads * kEach), counter.value());
  const ZR::ZRHistogram::Snapshot snapshot = histogram.snapshot();
  EXPECT_EQ(static_cast<std::uint64_t>(kThreads * kEach), snapshot.count);
  EXPECT_DOUBLE_EQ(0.5 * kThreads * kEach, snapshot.sum);
}

TEST(ZRMetrics, ANameKeepsTheTypeAndLabelNamesItWasRegisteredWith) {
  ZRMetrics metrics;
  metrics.counter("things_total", "Things.", {{"kind", "a"}});
  EXPECT_THROW(metrics.gauge("things_total", "Things."), ZR::ZRError);
  EXPECT_THROW(metrics.histogram("things_total", "Things.", {1}), ZR::ZRError);
  EXPECT_THROW(metrics.counter("things_total", "Things.", {{"sort", "a"}}), ZR::ZRError);
  EXPECT_THROW(metrics.counter("things_total", "Things."), ZR::ZRError);
  metrics.histogram("took_seconds", "Took.", {1, 2});
  EXPECT_THROW(metrics.histogram("took_seconds", "Took.", {1, 3}), ZR::ZRError);
}

TEST(ZRMetrics, NamesTheFormatDoesNotAllowAreRefused) {
  ZRMetrics metrics;
  for (const char* name : {"", "1st", "with space", "dash-ed", "new\nline"}) {
    EXPECT_THROW(metrics.counter(name, "."), ZR::ZRError) << name;
  }
  EXPECT_NO_THROW(metrics.counter("ns:sub_total", "."));
  for (const char* label : {"", "__reserved", "a:b", "9"}) {
    EXPECT_THROW(metrics.counter("labelled_total", ".", {{label, "x"}}), ZR::ZRError) << label;
  }
  EXPECT_THROW(metrics.histogram("latency", ".", {1}, {{"le", "x"}}), ZR::ZRError);
  EXPECT_THROW(metrics.counter("twice_total", ".", {{"a", "1"}, {"a", "2"}}), ZR::ZRError);
  EXPECT_THROW(metrics.histogram("unordered", ".", {2, 1}), ZR::ZRError);
  EXPECT_THROW(metrics.histogram("infinite", ".", {1, std::numeric_limits<double>::infinity()}),
               ZR::ZRError);
}

TEST(ZRMetrics, WhatTheRegistryHoldsIsBounded) {
  ZRMetrics metrics;
  for (std::size_t i = 0; i < ZRMetrics::kMaxSeriesPerFamily; ++i) {
    metrics.counter("many_total", "Many.", {{"n", std::to_string(i)}});
  }
  EXPECT_THROW(metrics.counter("many_total", "Many.", {{"n", "one more"}}), ZR::ZRError);
  // A series that exists is still handed out.
  EXPECT_NO_THROW(metrics.counter("many_total", "Many.", {{"n", "0"}}));

  EXPECT_THROW(metrics.counter("long_total", ".",
                               {{"v", std::string(ZRMetrics::kMaxLabelValueBytes + 1, 'x')}}),
               ZR::ZRError);
  EXPECT_THROW(metrics.counter("helpful_total", std::string(ZRMetrics::kMaxHelpBytes + 1, 'h')),
               ZR::ZRError);
  EXPECT_THROW(metrics.counter(std::string(ZRMetrics::kMaxNameBytes + 1, 'n'), "."), ZR::ZRError);
  EXPECT_THROW(
      metrics.histogram("buckets", ".", std::vector<double>(ZRMetrics::kMaxBuckets + 1, 1.0)),
      ZR::ZRError);
  ZRMetricLabels tooMany;
  for (std::size_t i = 0; i <= ZRMetrics::kMaxLabels; ++i) {
    tooMany.emplace_back("l" + std::to_string(i), "v");
  }
  EXPECT_THROW(metrics.counter("labels_total", ".", tooMany), ZR::ZRError);

  ZRMetrics families;
  for (std::size_t i = 0; i < ZRMetrics::kMaxFamilies; ++i) {
    families.gauge("g" + std::to_string(i), ".");
  }
  EXPECT_THROW(families.gauge("one_more", "."), ZR::ZRError);
}

TEST(ZRMetrics, ASnapshotHoldsEveryFamilyByNameWithItsValues) {
  ZRMetrics metrics;
  metrics.counter("b_total", "B.", {{"x", "2"}}).increment(2);
  metrics.counter("b_total", "B, said otherwise.", {{"x", "1"}}).increment();
  metrics.gauge("a", "A.").set(-5);
  metrics.histogram("c_seconds", "C.", {1}).observe(2);
  const std::vector<ZRMetrics::FamilyValues> families = metrics.snapshot();
  ASSERT_EQ(3u, families.size());
  EXPECT_EQ("a", families[0].name);
  EXPECT_EQ("b_total", families[1].name);
  EXPECT_EQ("c_seconds", families[2].name);

  const ZRMetrics::FamilyValues* counted = familyIn(families, "b_total");
  EXPECT_EQ("B.", counted->help);  // the first registration's
  EXPECT_EQ(ZR::ZRMetricType::Counter, counted->type);
  ASSERT_EQ(2u, counted->series.size());
  EXPECT_EQ((ZRMetricLabels{{"x", "1"}}), counted->series[0].labels);
  EXPECT_EQ(1u, counted->series[0].counter);
  EXPECT_EQ(2u, counted->series[1].counter);

  EXPECT_EQ(-5, familyIn(families, "a")->series.at(0).gauge);
  const ZRMetrics::FamilyValues* timed = familyIn(families, "c_seconds");
  EXPECT_EQ(std::vector<double>{1}, timed->upperBounds);
  EXPECT_EQ((std::vector<std::uint64_t>{0, 1}), timed->series.at(0).histogram.cumulative);
}

}  // namespace
