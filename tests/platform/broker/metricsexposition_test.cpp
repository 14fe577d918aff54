// The text of GET /metrics and the figures of the process it adds.
#include <common/files.h>
#include <gtest/gtest.h>
#include <tuqvu/broker/metricsexposition.h>
#include <unistd.h>

#include <string>

#include "support/tuqvuprocess.h"

using tuqvu::broker::exposition;
using tuqvu::broker::ProcessFigures;
using tuqvu::broker::readProcessFigures;

namespace {

bool holdsLine(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST(MetricsExposition, CountersAndGaugesAreWrittenWithTheirHelpTypeAndLabels) {
  ZR::ZRMetrics metrics;
  metrics.counter("jobs_total", "Jobs done.", {{"kind", "a"}, {"by", "me"}}).increment(3);
  metrics.gauge("queue_length", "Waiting jobs.").set(-2);
  const std::string text = exposition(metrics);
  EXPECT_TRUE(holdsLine(text, "# HELP jobs_total Jobs done.")) << text;
  EXPECT_TRUE(holdsLine(text, "# TYPE jobs_total counter")) << text;
  EXPECT_TRUE(holdsLine(text, "jobs_total{kind=\"a\",by=\"me\"} 3")) << text;
  EXPECT_TRUE(holdsLine(text, "# TYPE queue_length gauge")) << text;
  EXPECT_TRUE(holdsLine(text, "queue_length -2")) << text;
}

TEST(MetricsExposition, AHistogramHasCumulativeBucketsUpToInfinityItsCountAndSum) {
  ZR::ZRMetrics metrics;
  ZR::ZRHistogram& took = metrics.histogram("took_seconds", "Took.", {0.5, 2}, {{"m", "x"}});
  took.observe(0.25);
  took.observe(1);
  took.observe(7);
  const std::string text = exposition(metrics);
  EXPECT_TRUE(holdsLine(text, "# TYPE took_seconds histogram")) << text;
  EXPECT_TRUE(holdsLine(text, "took_seconds_bucket{m=\"x\",le=\"0.5\"} 1")) << text;
  EXPECT_TRUE(holdsLine(text, "took_seconds_bucket{m=\"x\",le=\"2\"} 2")) << text;
  EXPECT_TRUE(holdsLine(text, "took_seconds_bucket{m=\"x\",le=\"+Inf\"} 3")) << text;
  EXPECT_TRUE(holdsLine(text, "took_seconds_count{m=\"x\"} 3")) << text;
  EXPECT_TRUE(holdsLine(text, "took_seconds_sum{m=\"x\"} 8.25")) << text;
}

TEST(MetricsExposition, LabelValuesAndHelpTextsAreEscaped) {
  ZR::ZRMetrics metrics;
  metrics.counter("odd_total", "Back\\slash and\nnew line.", {{"v", "say \"hi\"\\\n"}});
  const std::string text = exposition(metrics);
  EXPECT_TRUE(holdsLine(text, "# HELP odd_total Back\\\\slash and\\nnew line.")) << text;
  EXPECT_TRUE(holdsLine(text, "odd_total{v=\"say \\\"hi\\\"\\\\\\n\"} 0")) << text;
}

TEST(MetricsExposition, TheProcessFiguresAreReadFromItsProcFolder) {
  const brokertest::TempDir proc;
  const std::string self = proc.path() + "/self";
  // The command name holds a space and a parenthesis: fields count from the last ')'.
  // Field 20 is the thread count, 22 the start in clock ticks after boot, 24 the
  // resident pages.
  std::string stat = "4242 (a (b) c) S";
  for (int field = 4; field <= 30; ++field) {
    std::string value = "0";
    if (field == 20) value = "9";
    if (field == 22) value = std::to_string(100 * ::sysconf(_SC_CLK_TCK));  // 100 s after boot
    if (field == 24) value = "25";
    stat += " " + value;
  }
  tuqvutest::writeFile(self + "/stat", stat + "\n");
  tuqvutest::writeFile(proc.path() + "/stat", "cpu 1 2 3\nbtime 1700000000\nprocesses 5\n");
  tuqvutest::writeFile(proc.path() + "/uptime", "160.50 300.00\n");
  // Numbers no descriptor of the test has, so that none is taken for the listing's own.
  for (const char* descriptor : {"900001", "900002", "900003", "900004"}) {
    tuqvutest::writeFile(self + "/fd/" + descriptor, "");
  }

  const ProcessFigures figures = readProcessFigures(self, proc.path());
  EXPECT_EQ(9, figures.threads.value_or(-1));
  EXPECT_EQ(25 * ::sysconf(_SC_PAGESIZE), figures.residentBytes.value_or(-1));
  EXPECT_EQ(1700000100, figures.startTimeSeconds.value_or(-1));
  EXPECT_EQ(60, figures.uptimeSeconds.value_or(-1));
  EXPECT_EQ(4, figures.openDescriptors.value_or(-1));
}

TEST(MetricsExposition, WhatCannotBeReadIsLeftOut) {
  const brokertest::TempDir proc;
  const ProcessFigures figures = readProcessFigures(proc.path() + "/self", proc.path());
  EXPECT_FALSE(figures.threads);
  EXPECT_FALSE(figures.residentBytes);
  EXPECT_FALSE(figures.openDescriptors);

  ZR::ZRMetrics metrics;
  tuqvu::broker::recordProcessFigures(metrics, figures);
  EXPECT_EQ(std::string::npos, exposition(metrics).find("process_threads"));
}

TEST(MetricsExposition, AScrapeOfThisProcessShowsItsFigures) {
  ZR::ZRMetrics metrics;
  const std::string text = tuqvu::broker::metricsText(metrics);
  const ProcessFigures figures = readProcessFigures();
  ASSERT_TRUE(figures.threads && figures.residentBytes && figures.openDescriptors);
  EXPECT_GE(*figures.threads, 1);
  EXPECT_GT(*figures.residentBytes, 0);
  EXPECT_GE(*figures.openDescriptors, 1);
  for (const char* name : {"process_resident_memory_bytes", "process_threads", "process_open_fds",
                           "process_start_time_seconds", "tuqvu_uptime_seconds"}) {
    EXPECT_TRUE(holdsLine(text, std::string("# TYPE ") + name + " gauge")) << name << "\n" << text;
  }
}

}  // namespace
