// The upload tests' bench: a control manager and its engine on a fake clock, status service,
// bus, database and FTP client, under a sandbox root of their own.
#pragma once

#include <gtest/gtest.h>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "tests/fakes/fake_ftp_client.h"
#include "tests/fakes/fakes.h"
#include "upload/ftp_upload_file_mng.h"

// A valid, runnable task record: transfer on, any link, server 127.0.0.1:21 "/up", remote
// directory "in" and name "remote.bin".
inline ftpFileInfo_t SampleTask(uint32_t seq, const std::string& fullName, uint8_t type = 0) {
  ftpFileInfo_t t{};
  t.type = type;
  t.seq = seq;
  strncpy(t.fullName, fullName.c_str(), sizeof(t.fullName) - 1);
  strcpy(t.fileName, "remote.bin");
  strcpy(t.fileDir, "in");
  t.valid = 1;
  t.net = 7;
  t.trans = 1;
  t.server.port = 21;
  strcpy(t.server.host, "127.0.0.1");
  strcpy(t.server.path, "/up");
  return t;
}

struct UploadBench {
  UploadBench() {
    env.clock = &clock;
    env.status = &status;
    env.bus = &bus;
    env.db = &db;
  }
  // Declares a present disk of status id at root + rel; returns its mount directory.
  std::string AddDisk(int id, const std::string& rel) {
    std::string dir = root.path() + rel;
    MakeDirs(dir.c_str());
    status.disks.push_back({id, 1});
    status.mounts[DISK_USAGE_UPLOAD].push_back(FakeStatus::Entry(id, dir));
    return dir;
  }
  void SetPresent(int id, int present) {
    for (auto& d : status.disks) d.present = d.id == id ? present : d.present;
  }
  std::string File(const std::string& name, const std::string& content = "x") {
    root.Write("/" + name, content);
    return root.path() + "/" + name;
  }
  // Stores tasks of seq named names in dir's database, as an earlier run left them.
  void StoreRows(const std::string& dir, uint32_t seq, const std::vector<std::string>& names) {
    FaultyDb writer;
    ASSERT_EQ(writer.OpenTable(dir.c_str()), 0);
    for (const std::string& name : names) {
      __ftp_log row;
      RowFromRecord(SampleTask(seq, name), &row);
      ASSERT_EQ(writer.Insert(&row), 0);
    }
  }
  // The rows of dir's database, read through a connection of the test's own.
  std::vector<__ftp_log> Rows(const std::string& dir) {
    FaultyDb probe;
    std::list<__ftp_log> rows;
    if (probe.OpenTable(dir.c_str()) == 0) probe.SearchAll(rows);
    return {rows.begin(), rows.end()};
  }
  std::vector<int> Seqs(const std::string& dir) {
    std::vector<int> out;
    for (const __ftp_log& r : Rows(dir)) out.push_back(static_cast<int>(r.seq));
    return out;
  }
  std::list<ftpFileInfo_t> List() {
    CAutoLock guard(&mng.m_lock);
    return mng.m_taskList;
  }
  std::vector<std::string> Names() {
    std::vector<std::string> out;
    for (const ftpFileInfo_t& t : List()) out.push_back(t.fullName);
    return out;
  }
  int Admit(uint32_t seq, const std::string& name, uint8_t type = 0, uint8_t net = 7,
            uint8_t del = 0) {
    ftpFileInfo_t t = SampleTask(seq, name, type);
    t.net = net;
    t.delAfterUpload = del;
    return mng.InsertFileInfo(&t);
  }
  // Task status events as (status, seq), after checking the rest of their layout.
  std::vector<std::pair<int, int>> StatusEvents() {
    std::vector<std::pair<int, int>> out;
    for (const auto& e : bus.Events(EVENT_FILE_UPLOAD)) {
      const std::vector<uint8_t>& p = e.payload;
      EXPECT_EQ(p.size(), 1032u);
      EXPECT_EQ(LoadLE32(p.data()), 0x702u);
      EXPECT_EQ(LoadLE32(p.data() + 4), 4u);
      EXPECT_EQ(std::vector<uint8_t>(p.begin() + 12, p.end()), std::vector<uint8_t>(1020, 0));
      out.emplace_back(p[8] * 256 + p[9], LoadLE16(p.data() + 10));
    }
    return out;
  }

  TempRoot root;
  FakeClock clock;
  FakeStatus status;
  FakeBus bus;
  FaultyDb db;
  FakeFtpClient::Installer ftp;
  TestEnv env;
  CFtpUploadFileMng engine{&env};
  CFtpCtrlMng mng{&env, &engine};
};
