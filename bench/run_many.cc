// Runs programs many times, interleaved, and reports the wall time of each.
//
//   run_many [--rounds N] [--warmup W] [--batch B] [--jobs J] [--out FILE]
//            [--samples FILE] CONTESTANT...
//   CONTESTANT:  -c NAME [--in FILE]... [--env NAME=VALUE]... -- PROGRAM [ARG]... ';'
//
// A round of a contestant starts its program B times, at most J at a time,
// and measures the round's wall time, from the first start to the last exit
// (B = J = 1: the wall time of one run). Contestants take their rounds in
// turn, ABBA: even rounds in the order given, odd rounds in reverse, so a
// slow drift of the machine weighs on every contestant alike. W rounds of
// each are run first and not counted. Run k of a contestant reads the file
// of its k-th --in (cycling through them) on standard input, and every "{}"
// in its arguments stands for that file's name (so a program can find a
// companion file of its input); its standard output and error go to FILE
// (appended) or to /dev/null. The environment is run_many's own with the
// --env assignments applied.
//
// Prints one line per contestant, times in microseconds:
//   NAME median=... p10=... p90=... mean=... min=... cpu_median=... rounds=N failures=F
// cpu_median is the median over rounds of the processor time (user and
// system) of the round's runs and of the children they waited for, as
// wait4 reports it: unlike the wall time it does not grow when other work
// on the machine delays a run, but it leaves out the database server.
// With --samples, every counted round is also written to FILE, one line
// each: NAME ROUND WALL CPU.
// A run that exits other than 0 (or is killed) counts as a failure; the
// exit status of run_many is then 1. Bad usage: exit status 2.
//
// run_many adopts the orphans of its runs (PR_SET_CHILD_SUBREAPER): a round
// ends when the last process its runs started has ended, so a program that
// hands its reply to a sendmail and exits without waiting for it is measured
// with that sendmail, like one that waits.
//
// Children are started with posix_spawn, which costs the parent the same for
// every contestant and far less than fork of a large process.
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Contestant {
  std::string name;
  std::vector<std::string> inputs;  // cycled through, one per run
  std::vector<std::string> argv;
  std::vector<std::string> environment;  // NAME=VALUE, complete
  std::size_t runs_started = 0;
  std::vector<double> round_us;  // counted rounds only
  std::vector<double> round_cpu_us;
  int failures = 0;
};

struct Options {
  int rounds = 100;
  int warmup = 5;
  int batch = 1;
  int jobs = 1;
  std::string out = "/dev/null";
  std::string samples;
  std::vector<Contestant> contestants;
};

[[noreturn]] void usage(const std::string& problem) {
  std::fprintf(stderr,
               "run_many: %s\nusage: run_many [--rounds N] [--warmup W] [--batch B] [--jobs J] "
               "[--out FILE] [--samples FILE] -c NAME [--in FILE]... [--env N=V]... -- PROGRAM "
               "[ARG]... ';' ...\n",
               problem.c_str());
  std::exit(2);
}

int positive(const char* text, const char* what, int minimum) {
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || value < minimum || value > 1000000) {
    usage(std::string("bad ") + what + ": " + text);
  }
  return static_cast<int>(value);
}

// The process's environment with `assignments` applied, each name once.
std::vector<std::string> environment_with(const std::vector<std::string>& assignments) {
  std::map<std::string, std::string> by_name;
  std::vector<std::string> order;
  auto put = [&](const std::string& entry) {
    const std::string name = entry.substr(0, entry.find('='));
    if (!by_name.contains(name)) order.push_back(name);
    by_name[name] = entry;
  };
  for (char** entry = environ; *entry != nullptr; ++entry) put(*entry);
  for (const std::string& entry : assignments) put(entry);
  std::vector<std::string> result;
  for (const std::string& name : order) result.push_back(by_name[name]);
  return result;
}

Options parse(int argc, char** argv) {
  Options options;
  int i = 1;
  auto next = [&](const char* what) -> const char* {
    if (i + 1 >= argc) usage(std::string("missing value of ") + what);
    return argv[++i];
  };
  for (; i < argc && std::string_view(argv[i]) != "-c"; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--rounds") {
      options.rounds = positive(next("--rounds"), "--rounds", 1);
    } else if (arg == "--warmup") {
      options.warmup = positive(next("--warmup"), "--warmup", 0);
    } else if (arg == "--batch") {
      options.batch = positive(next("--batch"), "--batch", 1);
    } else if (arg == "--jobs") {
      options.jobs = positive(next("--jobs"), "--jobs", 1);
    } else if (arg == "--out") {
      options.out = next("--out");
    } else if (arg == "--samples") {
      options.samples = next("--samples");
    } else {
      usage("unknown option " + std::string(arg));
    }
  }
  while (i < argc) {
    if (std::string_view(argv[i]) != "-c") usage("expected -c, got " + std::string(argv[i]));
    Contestant contestant;
    contestant.name = next("-c");
    std::vector<std::string> assignments;
    for (++i; i < argc && std::string_view(argv[i]) != "--"; ++i) {
      const std::string_view arg = argv[i];
      if (arg == "--in") {
        contestant.inputs.emplace_back(next("--in"));
      } else if (arg == "--env") {
        const std::string assignment = next("--env");
        if (assignment.find('=') == std::string::npos) usage("--env needs NAME=VALUE");
        assignments.push_back(assignment);
      } else {
        usage("unknown contestant option " + std::string(arg));
      }
    }
    for (++i; i < argc && std::string_view(argv[i]) != ";"; ++i)
      contestant.argv.emplace_back(argv[i]);
    ++i;  // the ';'
    if (contestant.argv.empty()) usage("contestant " + contestant.name + " has no program");
    if (contestant.inputs.empty()) contestant.inputs.emplace_back("/dev/null");
    contestant.environment = environment_with(assignments);
    options.contestants.push_back(std::move(contestant));
  }
  if (options.contestants.empty()) usage("no contestant");
  return options;
}

// posix_spawn's descriptor plan for one run, destroyed with it.
class FileActions {
 public:
  FileActions(const std::string& input, const std::string& out) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, out.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO);
  }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

// Pointers into `strings` for execve, ended by a null pointer.
std::vector<char*> pointer_block(std::vector<std::string>& strings) {
  std::vector<char*> block;
  for (std::string& s : strings) block.push_back(s.data());
  block.push_back(nullptr);
  return block;
}

// The argument vector of one run: "{}" replaced by the run's input file.
std::vector<std::string> arguments_for(const std::vector<std::string>& argv,
                                       const std::string& input) {
  std::vector<std::string> result = argv;
  for (std::string& arg : result) {
    for (std::size_t at = arg.find("{}"); at != std::string::npos; at = arg.find("{}", at)) {
      arg.replace(at, 2, input);
      at += input.size();
    }
  }
  return result;
}

double microseconds(const timeval& t) {
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_usec);
}

struct Round {
  double wall_us = 0;
  double cpu_us = 0;
};

// One round of `contestant`: `batch` runs, `jobs` at a time.
Round run_round(Contestant& contestant, const Options& options) {
  Round round;
  std::vector<char*> env = pointer_block(contestant.environment);
  int started = 0;
  int running = 0;
  std::set<pid_t> runs;  // the runs started and not yet ended
  const Clock::time_point begin = Clock::now();
  while (started < options.batch || running > 0) {
    while (started < options.batch && running < options.jobs) {
      const std::string& input =
          contestant.inputs[contestant.runs_started++ % contestant.inputs.size()];
      const FileActions actions(input, options.out);
      std::vector<std::string> arguments = arguments_for(contestant.argv, input);
      std::vector<char*> args = pointer_block(arguments);
      pid_t pid = 0;
      const int error = posix_spawn(&pid, args[0], actions.get(), nullptr, args.data(), env.data());
      if (error != 0) {
        throw std::runtime_error("cannot start " + contestant.argv[0] + ": " +
                                 std::strerror(error));
      }
      ++started;
      ++running;
      runs.insert(pid);
    }
    int status = 0;
    rusage usage{};
    const pid_t pid = wait4(-1, &status, 0, &usage);
    if (pid < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(std::string("wait4: ") + std::strerror(errno));
    }
    round.cpu_us += microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
    if (runs.erase(pid) == 0) continue;  // an adopted orphan
    --running;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++contestant.failures;
  }
  // The orphans still running.
  for (;;) {
    int status = 0;
    rusage usage{};
    const pid_t pid = wait4(-1, &status, 0, &usage);
    if (pid < 0) {
      if (errno == EINTR) continue;
      if (errno == ECHILD) break;
      throw std::runtime_error(std::string("wait4: ") + std::strerror(errno));
    }
    round.cpu_us += microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
  }
  round.wall_us = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
  return round;
}

double quantile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  const double position = q * static_cast<double>(values.size() - 1);
  const auto below = static_cast<std::size_t>(position);
  const std::size_t above = std::min(below + 1, values.size() - 1);
  const double fraction = position - static_cast<double>(below);
  return values[below] + fraction * (values[above] - values[below]);
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parse(argc, argv);
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    std::fprintf(stderr, "run_many: cannot adopt orphans: %s\n", std::strerror(errno));
    return 2;
  }
  try {
    for (int round = 0; round < options.warmup + options.rounds; ++round) {
      const std::size_t count = options.contestants.size();
      for (std::size_t k = 0; k < count; ++k) {
        Contestant& contestant = options.contestants[round % 2 == 0 ? k : count - 1 - k];
        const Round measured = run_round(contestant, options);
        if (round >= options.warmup) {
          contestant.round_us.push_back(measured.wall_us);
          contestant.round_cpu_us.push_back(measured.cpu_us);
        }
      }
    }
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "run_many: %s\n", failure.what());
    return 2;
  }

  if (!options.samples.empty()) {
    std::FILE* samples = std::fopen(options.samples.c_str(), "w");
    if (samples == nullptr) {
      std::fprintf(stderr, "run_many: cannot write %s: %s\n", options.samples.c_str(),
                   std::strerror(errno));
      return 2;
    }
    for (const Contestant& c : options.contestants) {
      for (std::size_t r = 0; r < c.round_us.size(); ++r) {
        std::fprintf(samples, "%s %zu %.0f %.0f\n", c.name.c_str(), r, c.round_us[r],
                     c.round_cpu_us[r]);
      }
    }
    std::fclose(samples);
  }

  int failures = 0;
  for (const Contestant& c : options.contestants) {
    const double mean = std::accumulate(c.round_us.begin(), c.round_us.end(), 0.0) /
                        static_cast<double>(c.round_us.size());
    std::printf(
        "%s median=%.0f p10=%.0f p90=%.0f mean=%.0f min=%.0f cpu_median=%.0f rounds=%zu "
        "failures=%d\n",
        c.name.c_str(), quantile(c.round_us, 0.5), quantile(c.round_us, 0.1),
        quantile(c.round_us, 0.9), mean, quantile(c.round_us, 0.0), quantile(c.round_cpu_us, 0.5),
        c.round_us.size(), c.failures);
    failures += c.failures;
  }
  return failures == 0 ? 0 : 1;
}
