/// Echo servers on this library and on its peers under the same load. See README.md.
#include "network_bench.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <regex>
#include <string>
#include <vector>

#include "network_bench_server.h"

namespace oskernel_bench {

const Implementation kImplementations[kImplementationCount] = {{"oskernel", serve_oskernel, true},
                                                               {"libuv", serve_libuv, false},
                                                               {"libevent", serve_libevent, false},
                                                               {"asio", serve_asio, true},
                                                               {"epoll", serve_epoll, true}};

namespace {

struct Row {
  std::string name;
  Load load;
  bool quick;  // is part of a quick run
};

constexpr int kSpareDescriptors = 100;

std::vector<Row> all_rows() {
  using Kind = Load::Kind;
  std::vector<Row> rows;
  const auto name = [](const char* subject, int size, int connections) {
    return std::string(subject) + "/size:" + std::to_string(size) +
           "/connections:" + std::to_string(connections);
  };
  for (const int connections : {1, 50, 500, 5000}) {
    for (const int size : {64, 512, 1400}) {
      const bool quick = size == 64 || connections == 50;
      rows.push_back({name("tcp_echo", size, connections),
                      {Kind::kEcho, Protocol::kStream, size, connections, 0},
                      quick});
    }
  }
  for (const int connections : {1, 50, 500, 5000}) {
    for (const int size : {64, 512, 1400}) {
      const bool quick = size == 64 && (connections == 50 || connections == 500);
      rows.push_back({name("rfc1006_echo", size, connections),
                      {Kind::kEcho, Protocol::kPackets, size, connections, 0},
                      quick});
    }
  }
  for (const int connections : {1, 50}) {
    for (const int size : {64, 512, 1400}) {
      rows.push_back({name("udp_echo", size, connections),
                      {Kind::kEcho, Protocol::kDatagrams, size, connections, 0},
                      size == 64});
    }
  }
  rows.push_back({name("connect_echo_close", 64, 4), {Kind::kChurn, Protocol::kStream, 64, 4, 0}, true});
  for (const int idle : {0, 1000, 10000}) {
    rows.push_back({name("echo_beside_idle", 64, 50) + "/idle:" + std::to_string(idle),
                    {Kind::kEcho, Protocol::kStream, 64, 50, idle},
                    idle != 1000});
  }
  rows.push_back(
      {"memory_per_connection/connections:5000", {Kind::kMemory, Protocol::kStream, 64, 0, 5000}, true});
  for (const int connections : {1, 50}) {
    for (const int size : {1400, 16384}) {
      rows.push_back({name("tls_echo", size, connections),
                      {Kind::kEcho, Protocol::kTls, size, connections, 0},
                      size == 16384});
    }
  }
  rows.push_back({name("tls_handshake", 64, 4), {Kind::kChurn, Protocol::kTls, 64, 4, 0}, true});
  return rows;
}

struct Arguments {
  bool list = false;
  bool quick = false;
  int repetitions = 5;
  double seconds = 0.5;
  std::string filter;
  std::string servers = ".";
};

int usage(const char* program) {
  std::fprintf(
      stderr,
      "usage: %s [--list] [--quick] [--filter REGEX] [--servers REGEX] [--repetitions N] [--seconds S]\n"
      "Prints one line of JSON for each measurement.\n",
      program);
  return 2;
}

bool parse(int argc, char** argv, Arguments* arguments) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--list") {
      arguments->list = true;
    } else if (option == "--quick") {
      arguments->quick = true;
    } else if (i + 1 == argc) {
      return false;
    } else if (option == "--filter") {
      arguments->filter = argv[++i];
    } else if (option == "--servers") {
      arguments->servers = argv[++i];
    } else if (option == "--repetitions") {
      arguments->repetitions = std::atoi(argv[++i]);
    } else if (option == "--seconds") {
      arguments->seconds = std::atof(argv[++i]);
    } else {
      return false;
    }
  }
  return arguments->repetitions > 0 && arguments->seconds > 0;
}

std::vector<Row> chosen_rows(const Arguments& arguments) {
  const std::regex filter(arguments.filter);
  std::vector<Row> rows;
  for (Row& row : all_rows()) {
    if (arguments.quick && !row.quick) continue;
    if (std::regex_search(row.name, filter)) rows.push_back(std::move(row));
  }
  return rows;
}

/// Measures each row with every server in turn, and all of that again for each repetition. The server that comes first
/// changes.
int measure_all(const Arguments& arguments, std::vector<Row> rows) {
  std::size_t most = 0;
  for (const Row& row : rows) most = std::max(most, static_cast<std::size_t>(row.load.connections()));
  const std::size_t descriptors = allow_descriptors(most + kSpareDescriptors);
  std::erase_if(rows, [descriptors](const Row& row) {
    const bool possible = static_cast<std::size_t>(row.load.connections() + kSpareDescriptors) <= descriptors;
    if (!possible) {
      std::fprintf(stderr, "%s is left out: the system allows only %zu descriptors (ulimit -n).\n",
                   row.name.c_str(), descriptors);
    }
    return !possible;
  });

  const std::regex servers(arguments.servers);
  const int processor = pin_load();
  int failures = 0;
  for (int repetition = 0; repetition < arguments.repetitions; ++repetition) {
    for (const Row& row : rows) {
      for (int i = 0; i < kImplementationCount; ++i) {
        const Implementation& server = kImplementations[(i + repetition) % kImplementationCount];
        if (!std::regex_search(server.name, servers)) continue;
        if (row.load.protocol == Protocol::kTls && !server.tls) continue;
        try {
          const Figures figures = measure(server, row.load, arguments.seconds);
          std::printf(
              "{\"row\": \"%s\", \"server\": \"%s\", \"value\": %.2f, \"processor_us\": %.3f, "
              "\"load_share\": %.3f, \"others_share\": %.3f, \"resent\": %llu, \"load_processor\": %d}\n",
              row.name.c_str(), server.name, figures.value, figures.processor_us, figures.load_share,
              figures.others_share, static_cast<unsigned long long>(figures.resent), processor);
        } catch (const std::exception& error) {
          ++failures;
          std::printf("{\"row\": \"%s\", \"server\": \"%s\", \"failure\": \"%s\"}\n", row.name.c_str(),
                      server.name, error.what());
        }
        std::fflush(stdout);
      }
    }
  }
  return failures == 0 ? 0 : 1;
}

int serve(const char* name, const char* protocol, const char* connections) {
  std::signal(SIGPIPE, SIG_IGN);
  for (const Implementation& implementation : kImplementations) {
    if (std::strcmp(implementation.name, name) == 0) {
      implementation.serve(static_cast<Protocol>(std::atoi(protocol)), std::atoi(connections));
    }
  }
  return 1;  // a server runs until it is ended
}

int run(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--serve") == 0) return serve(argv[2], argv[3], argv[4]);
  Arguments arguments;
  if (!parse(argc, argv, &arguments)) return usage(argv[0]);
  const std::vector<Row> rows = chosen_rows(arguments);
  if (!arguments.list) return measure_all(arguments, rows);
  for (const Row& row : rows) std::printf("%s\n", row.name.c_str());
  return 0;
}

}  // namespace
}  // namespace oskernel_bench

int main(int argc, char** argv) {
  try {
    return oskernel_bench::run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
