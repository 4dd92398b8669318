#pragma once
// A peer that serves one pool from memory: datasets and snapshots over its REST interface, and the receiving
// end of streams. Every request is recorded; any can be refused.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/http/http_server.h"
#include "platform/json/json_spirit.h"

class Scripted_Peer {
 public:
  struct Snapshot {
    std::string parent, id;
    ACE_UINT64 seq = 0;
  };
  struct Received {
    std::string path, whole_seq, body;
    bool whole = false;
  };

  Scripted_Peer() {
    HTTP_Server_Options options;
    options.addresses.push_back({"127.0.0.1", 0, false, "", ""});
    options.streams = [](const Server_Request& request) {
      return request.path.find("/receive/") != std::string::npos;
    };
    std::string error;
    const auto handler = [this](const Server_Request& in, Server_Response& out) { handle(in, out); };
    if (!server_.start(options, handler, error)) ADD_FAILURE() << error;
  }
  ~Scripted_Peer() { server_.stop(0); }
  ACE_UINT16 port() const { return server_.ports().at(0); }

  // How many requests began with the text "METHOD path".
  std::size_t count(const std::string& begin) const {
    const std::lock_guard<std::mutex> guard(lock_);
    return std::count_if(requests.begin(), requests.end(),
                         [&](const std::string& one) { return one.compare(0, begin.size(), begin) == 0; });
  }
  std::string dump() const {
    std::string text;
    for (const std::string& one : requests)
      text += one + "\n";
    return text;
  }

  json_spirit::Value pools = json_spirit::Array{json_spirit::Object{{"fs_type", "zfs"}}};
  std::vector<std::string> luns, filesystems;
  std::vector<Snapshot> snapshots;
  bool without_seq = false;
  std::map<std::string, int> refuse;  // "METHOD path" -> how many times
  std::vector<std::string> requests;  // "METHOD path?query body"
  std::vector<Received> received;
  std::function<void()> on_stream;  // called while a stream is taken
  json_spirit::Object created;      // the body of the last request that made a dataset

 private:
  void handle(const Server_Request& in, Server_Response& out) {
    std::string stream;
    const bool whole = in.stream == nullptr || read_all(*in.stream, stream);
    if (in.stream != nullptr && on_stream) on_stream();
    const std::lock_guard<std::mutex> guard(lock_);
    const std::string name = in.method + " " + in.path;
    std::string line = name;
    for (const auto& one : in.query)
      line += (line == name ? "?" : "&") + one.first + "=" + one.second;
    requests.push_back(line + (in.body.empty() ? "" : " " + in.body));
    for (auto& one : refuse)
      if (name.compare(0, one.first.size(), one.first) == 0 && one.second-- > 0)
        return out.error(500, "refused");
    if (in.stream != nullptr && in.method == "POST") {
      const std::string* seq = in.headers.find("X-Snapshot-Seq");
      received.push_back({in.path, seq != nullptr ? *seq : "", stream, whole});
    }
    out.json(200, answer(in));
  }
  static bool read_all(Body_Reader& reader, std::string& text) {
    char buffer[4096];
    ssize_t count = 0;
    while ((count = reader.read(buffer, sizeof buffer)) > 0)
      text.append(buffer, static_cast<std::size_t>(count));
    return count == 0;
  }
  json_spirit::Value answer(const Server_Request& in) {
    json_spirit::Array list;
    const bool fs = in.path.find("/fs") != std::string::npos;
    if (in.method == "POST" && in.stream == nullptr) {
      const json_spirit::Value body = json_spirit::Value::parse(in.body);
      created = body;
    } else if (in.method != "GET") {
      return json_spirit::Object{};
    } else if (in.path == "/svc/r/pool") {
      return pools;
    } else if (in.path.find("/snapshot") != std::string::npos) {
      for (const Snapshot& one : snapshots) {
        const bool of_fs = std::find(filesystems.begin(), filesystems.end(), one.parent) != filesystems.end();
        if (of_fs != fs) continue;
        json_spirit::Object record{
            {"parent_id", one.parent}, {"id", one.id}, {"recycle", false}, {"seq", one.seq}};
        if (without_seq) record.erase("seq");
        list.push_back(record);
      }
    } else {
      for (const std::string& one : fs ? filesystems : luns)
        list.push_back(json_spirit::Object{{fs ? "name" : "lun_id", one}});
    }
    return list;
  }

  mutable std::mutex lock_;
  HTTP_Server server_;
};
