#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "control/ftp_ctrl_mng.h"
#include "platform/byteorder.h"
#include "tests/fakes/fakes.h"
#include "tests/fakes/sample_task.h"
#include "upload/ftp_upload_file_mng.h"
#include "upload/task_status.h"

namespace {

ftpFileInfo_t Task(uint32_t seq, const std::string& fullName, uint8_t type = 0) {
  return SampleTask(seq, fullName, type);
}

std::vector<std::string> Names(const std::list<ftpFileInfo_t>& list) {
  std::vector<std::string> out;
  for (const ftpFileInfo_t& t : list) out.push_back(t.fullName);
  return out;
}

// (fullpath, trans, server path) of every row of the database in mountDir, in order.
struct DbRow {
  std::string fullpath;
  int trans;
  std::string serverPath;
};
std::vector<DbRow> DbRows(const std::string& mountDir) {
  std::vector<DbRow> out;
  sqlite3* db = nullptr;
  std::string path = mountDir + "/new_file_op.db";
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return out;
  }
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db, "SELECT fullpath, trans, server FROM ftp_log ORDER BY id", -1, &st,
                         nullptr) == SQLITE_OK) {
    while (sqlite3_step(st) == SQLITE_ROW) {
      const char* server = static_cast<const char*>(sqlite3_column_blob(st, 2));
      out.push_back({reinterpret_cast<const char*>(sqlite3_column_text(st, 0)),
                     sqlite3_column_int(st, 1), std::string(server + 98)});
    }
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  return out;
}

class UploadControlTest : public ::testing::Test {
 protected:
  UploadControlTest() {
    env.status = &status;
    env.bus = &bus;
    env.db = &taskDb;
  }

  // Declares a disk in the status service; returns its mount directory.
  std::string AddDisk(int id, const std::string& rel, int present = 1) {
    std::string dir = root.path() + rel;
    MakeDirs(dir.c_str());
    std::lock_guard<std::mutex> g(status.mutex);
    status.disks.push_back({id, present});
    status.mounts[id == 9 ? DISK_USAGE_TYPE9 : DISK_USAGE_UPLOAD].push_back(
        FakeStatus::Entry(id, dir));
    return dir;
  }
  void SetPresent(int id, int present) {
    std::lock_guard<std::mutex> g(status.mutex);
    for (auto& d : status.disks) {
      if (d.id == id) d.present = present;
    }
  }
  // Writes rows into the database of mountDir through the library.
  void StoreRows(const std::string& mountDir, const std::vector<ftpFileInfo_t>& tasks) {
    CFile2FtpDbMng* db = &taskDb;
    ASSERT_EQ(db->OpenTable(mountDir.c_str()), 0);
    for (const ftpFileInfo_t& t : tasks) {
      __ftp_log row;
      RowFromRecord(t, &row);
      ASSERT_EQ(db->Insert(&row), 0);
    }
    db->m_bTabOpen = 0;
  }
  std::list<ftpFileInfo_t> List() {
    CAutoLock guard(&mng.m_lock);
    return mng.m_taskList;
  }

  TempRoot root;
  FakeStatus status;
  FakeBus bus;
  LogCapture log;
  FaultyDb taskDb;
  TestEnv env;
  CFtpUploadFileMng engineObj{&env};
  CFtpUploadFileMng* engine = &engineObj;
  CFtpCtrlMng mng{&env, engine};  // a fresh manager per test; the service uses the singleton
};

TEST_F(UploadControlTest, SmallestSlotIsCurrentAndFollowsDisksComingAndGoing) {
  AddDisk(7, "/mnt/sd3");
  std::string sd2 = AddDisk(6, "/mnt/sd2");
  AddDisk(2, "/mnt/other");              // no slot: ignored
  AddDisk(8, "/media/nomount");           // present but not under /mnt/: not taken
  mng.CheckDiskState(100);
  EXPECT_EQ(mng.CurDisk().id, 6);
  EXPECT_EQ(std::string(mng.CurDisk().path), sd2);
  EXPECT_EQ(mng.m_diskMap.size(), 2u);
  EXPECT_EQ(log.Count("CheckDiskState:349 disk changed [6,"), 1);

  SetPresent(6, 0);
  mng.CheckDiskState(105);
  EXPECT_EQ(mng.CurDisk().id, 7);
  EXPECT_EQ(log.Count("CheckDiskState:349 disk changed [7,"), 1);
  ftpFileInfo_t t = Task(1, "/data/after-change");
  ASSERT_EQ(mng.InsertFileInfo(&t), 0);  // written to the new current disk's database
  ASSERT_EQ(DbRows(root.path() + "/mnt/sd3").size(), 1u);
  EXPECT_TRUE(DbRows(sd2).empty());

  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.recorderStatus = 0;  // the recorder forbids choosing a disk
  }
  SetPresent(6, 1);
  mng.CheckDiskState(110);
  EXPECT_EQ(mng.m_diskMap.size(), 2u);  // the table follows the disks anyway
  EXPECT_EQ(mng.CurDisk().id, 7);

  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.recorderStatus = 1;
  }
  mng.CheckDiskState(115);  // back to the smaller slot, while sd3's table is still open
  ASSERT_EQ(mng.CurDisk().id, 6);
  ftpFileInfo_t back = Task(2, "/data/back");
  ASSERT_EQ(mng.InsertFileInfo(&back), 0);
  EXPECT_EQ(DbRows(sd2).size(), 1u);
  EXPECT_EQ(DbRows(root.path() + "/mnt/sd3").size(), 1u);

  {
    std::lock_guard<std::mutex> g(status.mutex);  // still present, but no longer mounted
    auto& mounts = status.mounts[DISK_USAGE_UPLOAD];
    mounts.erase(mounts.begin() + 1);
  }
  mng.CheckDiskState(120);
  EXPECT_EQ(mng.CurDisk().id, 6);
  EXPECT_STREQ(mng.CurDisk().path, "");
  EXPECT_EQ(log.Count("CheckDiskState:349 disk changed [6,]"), 1);
}

TEST_F(UploadControlTest, CardPutBackBlankAtTheSameMountGetsTheNewTasks) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  ftpFileInfo_t a = Task(1, "/data/a");
  ASSERT_EQ(mng.InsertFileInfo(&a), 0);  // the table on the card is open now
  SetPresent(1, 0);
  mng.CheckDiskState(105);
  ASSERT_EQ(system(("rm -rf '" + sd1 + "'").c_str()), 0);  // a blank card replaces it
  MakeDirs(sd1.c_str());
  SetPresent(1, 1);
  mng.CheckDiskState(110);
  ftpFileInfo_t b = Task(2, "/data/b");
  ASSERT_EQ(mng.InsertFileInfo(&b), 0);
  std::vector<DbRow> rows = DbRows(sd1);
  ASSERT_EQ(rows.size(), 1u);  // on the new card, not in the removed file
  EXPECT_EQ(rows[0].fullpath, "/data/b");
}

TEST_F(UploadControlTest, ZeroCountKeepsEverythingAndFailedStatusStillPicksDisk) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  ASSERT_EQ(mng.CurDisk().id, 1);
  StoreRows(sd1, {Task(1, "/data/a")});
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.disks.clear();  // succeeds with count 0
  }
  mng.CheckDiskState(200);  // 100 s later, empty list: still no reload
  EXPECT_TRUE(List().empty());
  EXPECT_EQ(mng.m_diskMap.size(), 1u);

  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.failing[STATUS_DISK] = true;  // fails: table unchanged, the reload step runs
  }
  mng.CheckDiskState(300);
  EXPECT_EQ(Names(List()), std::vector<std::string>{"/data/a"});
}

TEST_F(UploadControlTest, RemountReloadsOnceWithoutDuplicates) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  StoreRows(sd1, {Task(1, "/data/a"), Task(1, "/data/b")});
  mng.CheckDiskState(100);
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"/data/a", "/data/b"}));

  // The same disk now mounted elsewhere; its database holds b twice and a new c.
  std::string moved = root.path() + "/mnt/sd1b";
  MakeDirs(moved.c_str());
  StoreRows(moved, {Task(1, "/data/b"), Task(1, "/data/b"), Task(1, "/data/c")});
  {
    std::lock_guard<std::mutex> g(status.mutex);
    status.mounts[DISK_USAGE_UPLOAD][0] = FakeStatus::Entry(1, moved);
  }
  mng.CheckDiskState(105);
  // One b of the two is already queued, so one is appended; c is new.
  EXPECT_EQ(Names(List()),
            (std::vector<std::string>{"/data/a", "/data/b", "/data/b", "/data/c"}));
  StoreRows(moved, {Task(1, "/data/d")});
  mng.CheckDiskState(110);  // same directory: no reload, so d stays unqueued
  EXPECT_EQ(List().size(), 4u);
  EXPECT_EQ(std::string(mng.CurDisk().path), moved);

  // A reloaded record starts with zero counters and keeps the stored server path.
  ftpFileInfo_t first = List().front();
  EXPECT_EQ(first.sendTimes, 0);
  EXPECT_STREQ(first.server.path, "/up");
}

TEST_F(UploadControlTest, EmptyListReloadsCurrentDiskAtMostEveryThirtySeconds) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  StoreRows(sd1, {});
  mng.CheckDiskState(100);  // loads (nothing) and counts the reload
  EXPECT_EQ(mng.m_lastActive, 100);
  StoreRows(sd1, {Task(5, "/data/late")});
  mng.CheckDiskState(129);
  EXPECT_TRUE(List().empty());
  mng.CheckDiskState(130);
  EXPECT_EQ(Names(List()), std::vector<std::string>{"/data/late"});

  StoreRows(sd1, {Task(6, "/data/later")});
  mng.CheckDiskState(200);  // tasks queued: no reload
  EXPECT_EQ(List().size(), 1u);
}

TEST_F(UploadControlTest, IntakeStoresQueuesAndLimits) {
  ftpFileInfo_t rec = Task(9, "/0001_00000001_1_0_60_0_0.avi", 1);
  EXPECT_EQ(mng.InsertFileInfo(&rec), -1);  // a recording without a disk
  EXPECT_EQ(log.Count("InsertFileInfo:156 no disk ret"), 1);
  ftpFileInfo_t plain = Task(9, "/data/nodisk");
  EXPECT_EQ(mng.InsertFileInfo(&plain), 0);  // a plain file is queued anyway
  EXPECT_EQ(List().size(), 1u);

  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  ftpFileInfo_t slashes = Task(10, "/data/x");
  strcpy(slashes.server.path, "//srv/in");
  slashes.result = 2;
  ASSERT_EQ(mng.InsertFileInfo(&slashes), 0);
  EXPECT_EQ(slashes.result, 0);
  EXPECT_STREQ(List().back().server.path, "/srv/in");  // one "/" removed in the list
  auto rows = DbRows(sd1);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].serverPath, "//srv/in");             // both kept in the database

  for (int i = 2; i < 1000; ++i) {
    ftpFileInfo_t t = Task(11, "/data/n" + std::to_string(i));
    ASSERT_EQ(mng.InsertFileInfo(&t), 0) << i;  // the 1000th is admitted
  }
  ftpFileInfo_t extra = Task(11, "/data/extra");
  EXPECT_EQ(mng.InsertFileInfo(&extra), -1);
  EXPECT_EQ(List().size(), 1000u);
  EXPECT_EQ(DbRows(sd1).size(), 999u);
}

TEST_F(UploadControlTest, TransferControlChangesDatabaseListAndEngine) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  for (int i = 0; i < 3; ++i) {
    ftpFileInfo_t t = Task(40, "/data/r" + std::to_string(i), 1);
    ASSERT_EQ(mng.InsertFileInfo(&t), 0);
  }
  ftpFileInfo_t other = Task(41, "/data/other", 1);
  ASSERT_EQ(mng.InsertFileInfo(&other), 0);

  engine->SetTask(&other);
  engine->m_nTransState = 1;
  mng.SetFtpTrans(1, 0, 40);  // off
  for (const DbRow& r : DbRows(sd1)) EXPECT_EQ(r.trans, r.fullpath == "/data/other" ? 1 : 0);
  for (const ftpFileInfo_t& t : List()) EXPECT_EQ(t.trans, t.seq == 40 ? 0 : 1);
  ftpFileInfo_t held = engine->SnapshotTask();
  EXPECT_EQ(held.valid, 1);
  EXPECT_EQ(held.trans, 0);
  EXPECT_EQ(engine->m_nTransState, 0);

  // A sequence number without rows changes nothing, not even list records that carry it.
  {
    CAutoLock guard(&mng.m_lock);
    mng.m_taskList.push_back(Task(77, "/data/only-in-list", 1));
  }
  engine->SetTaskTrans(1, 1);
  mng.SetFtpTrans(1, 0, 77);
  EXPECT_EQ(List().back().trans, 1);
  EXPECT_EQ(engine->SnapshotTask().trans, 1);

  // Rows but no list record: the rows are rewritten and the engine's task switched on.
  {
    CAutoLock guard(&mng.m_lock);
    mng.m_taskList.remove_if([](const ftpFileInfo_t& t) { return t.seq == 40; });
  }
  engine->SetTaskTrans(0, 0);
  mng.SetFtpTrans(1, 1, 40);
  for (const DbRow& r : DbRows(sd1)) EXPECT_EQ(r.trans, 1);
  held = engine->SnapshotTask();
  EXPECT_EQ(held.valid, 1);
  EXPECT_EQ(held.trans, 1);

  // Delete removes every record of (seq, type) everywhere and stops whatever the engine holds.
  for (int i = 0; i < 2; ++i) {
    ftpFileInfo_t t = Task(40, "/data/again" + std::to_string(i), 1);
    ASSERT_EQ(mng.InsertFileInfo(&t), 0);
  }
  ftpFileInfo_t plainSameSeq = Task(40, "/data/plain", 0);
  ASSERT_EQ(mng.InsertFileInfo(&plainSameSeq), 0);
  engine->m_nTransState = 1;
  mng.SetFtpTrans(1, 2, 40);
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"/data/other", "/data/only-in-list",
                                                     "/data/plain"}));
  std::vector<std::string> stored;
  for (const DbRow& r : DbRows(sd1)) stored.push_back(r.fullpath);
  EXPECT_EQ(stored, (std::vector<std::string>{"/data/other", "/data/plain"}));
  held = engine->SnapshotTask();
  EXPECT_EQ(held.valid, 0);
  EXPECT_EQ(held.trans, 0);
  EXPECT_EQ(engine->m_nTransState, 0);

  mng.SetFtpTrans(1, 3, 41);  // unknown control: logged, nothing else
  EXPECT_EQ(log.Count("SetFtpTrans:361 filetype:1 ctrtype:3 seq:41"), 1);
  EXPECT_EQ(DbRows(sd1).size(), 2u);

  // A rewrite that fails half-way (here the writing back is refused) keeps the old rows.
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open((sd1 + "/new_file_op.db").c_str(), &raw), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(raw,
                         "CREATE TRIGGER refuse BEFORE INSERT ON ftp_log WHEN NEW.seq = 41 "
                         "BEGIN SELECT RAISE(ABORT, 'refused'); END;",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(raw);
  mng.SetFtpTrans(1, 0, 41);
  std::vector<DbRow> rows = DbRows(sd1);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].fullpath, "/data/other");
  EXPECT_EQ(rows[0].trans, 1);
}

TEST_F(UploadControlTest, EngineHandOverAndStatusEvent) {
  ftpFileInfo_t t = Task(3, "/data/f");
  t.result = 2;
  engine->m_nTransState = 2;
  engine->SetTask(&t);
  EXPECT_EQ(engine->SnapshotTask().result, 0);
  EXPECT_EQ(engine->m_nTransState, 0);
  EXPECT_EQ(log.Count("set task seq:3 trans:1 file:/data/f"), 1);

  engine->m_nTransState = 1;
  engine->SetTaskTrans(1, 1);
  EXPECT_EQ(engine->m_nTransState, 1);  // no zero: the state stays
  engine->SetTaskTrans(1, 0);
  EXPECT_EQ(engine->SnapshotTask().trans, 0);
  EXPECT_EQ(engine->m_nTransState, 0);

  engine->SendTaskStatus(70000, 0);
  auto events = bus.Events(EVENT_FILE_UPLOAD);
  ASSERT_EQ(events.size(), 1u);
  const std::vector<uint8_t>& p = events[0].payload;
  ASSERT_EQ(p.size(), 1032u);
  EXPECT_EQ(LoadLE32(p.data()), 0x702u);
  EXPECT_EQ(LoadLE32(p.data() + 4), 4u);
  EXPECT_EQ(p[8], 0);
  EXPECT_EQ(p[9], 0);
  EXPECT_EQ(LoadLE16(p.data() + 10), 4464);  // 70000's low 16 bits
  for (size_t i = 12; i < p.size(); ++i) ASSERT_EQ(p[i], 0) << i;
}

TEST_F(UploadControlTest, AdmittedTasksSurviveSigkill) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    CFtpCtrlMng writer(&env, engine);
    writer.CheckDiskState(100);
    for (int i = 0; i < 1000; ++i) {
      ftpFileInfo_t t = Task(1, "/data/p" + std::to_string(i));
      if (writer.InsertFileInfo(&t) != 0) _exit(3);
    }
    (void)!write(ready[1], "k", 1);
    pause();
    _exit(0);
  }
  close(ready[1]);
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  kill(child, SIGKILL);  // right after the last admission returned
  int exitStatus = 0;
  waitpid(child, &exitStatus, 0);
  close(ready[0]);

  std::list<ftpFileInfo_t> list;
  CLock lock;
  std::vector<char> dir(sd1.begin(), sd1.end());
  dir.push_back('\0');
  dataSync(dir.data(), list, &lock);
  ASSERT_EQ(list.size(), 1000u);
  int i = 0;
  for (const ftpFileInfo_t& t : list) EXPECT_EQ(std::string(t.fullName), "/data/p" + std::to_string(i++));
}

TEST_F(UploadControlTest, BrokenDatabasesAreLoggedAndOtherDisksStillLoad) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  std::string sd2 = AddDisk(6, "/mnt/sd2");
  {
    std::ofstream junk(sd1 + "/new_file_op.db", std::ios::binary);
    for (int i = 0; i < 4096; ++i) junk.put(static_cast<char>((i * 131 + 7) & 0xFF));
  }
  StoreRows(sd2, {Task(2, "/data/good1"), Task(2, "/data/good2")});
  std::string sd3 = AddDisk(5, "/mnt/sd3");
  sqlite3* newer = nullptr;  // a database of a later release, with a schema this one lacks
  ASSERT_EQ(sqlite3_open((sd3 + "/new_file_op.db").c_str(), &newer), SQLITE_OK);
  sqlite3_exec(newer, "PRAGMA user_version=99", nullptr, nullptr, nullptr);
  sqlite3_close(newer);
  mng.CheckDiskState(100);
  EXPECT_EQ(Names(List()), (std::vector<std::string>{"/data/good1", "/data/good2"}));
  EXPECT_EQ(log.Count("dataSync:62 open :new_file_op db file error"), 2);
  EXPECT_EQ(log.Count("dataSync:69 SearchAllLogFromDb error"), 2);
  EXPECT_EQ(log.Count("has schema 99, newer than 1"), 1);

  // Intake on the broken current disk: logged, still queued.
  ftpFileInfo_t t = Task(3, "/data/new");
  EXPECT_EQ(mng.InsertFileInfo(&t), 0);
  EXPECT_EQ(log.Count("Insert error"), 1);
  EXPECT_EQ(List().size(), 3u);
}

TEST_F(UploadControlTest, BusyDatabaseIsWaitedForABoundedTime) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  StoreRows(sd1, {});
  mng.CheckDiskState(100);
  sqlite3* other = nullptr;  // another writer that keeps the database locked
  ASSERT_EQ(sqlite3_open((sd1 + "/new_file_op.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  auto start = std::chrono::steady_clock::now();
  ftpFileInfo_t t = Task(3, "/data/busy");
  EXPECT_EQ(mng.InsertFileInfo(&t), 0);  // queued all the same, and the failure logged
  double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(log.Count("Insert error"), 1);
  EXPECT_GT(waited, 1.0);  // waited for the other writer ...
  EXPECT_LT(waited, 10.0);  // ... but not for ever
  sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_EQ(List().size(), 1u);
}

TEST_F(UploadControlTest, DatabaseThatRefusesWritesStillLoadsAndQueues) {
  std::string sd1 = AddDisk(1, "/mnt/sd1");
  StoreRows(sd1, {Task(2, "/data/ro1"), Task(2, "/data/ro2")});
  taskDb.full = true;
  mng.CheckDiskState(100);
  EXPECT_EQ(List().size(), 2u);
  ftpFileInfo_t t = Task(3, "/data/new");
  EXPECT_EQ(mng.InsertFileInfo(&t), 0);  // queued for this run all the same
  EXPECT_EQ(List().size(), 3u);
  EXPECT_EQ(DbRows(sd1).size(), 2u);
}

// Intake, transfer control and engine steering race the disk check here; the test exists for
// ThreadSanitizer, which sees every unguarded access of the shared list, database and task.
TEST_F(UploadControlTest, IntakeTransferControlAndEngineFromThreeThreads) {
  AddDisk(1, "/mnt/sd1");
  mng.CheckDiskState(100);
  std::thread intake([&] {
    for (int i = 0; i < 200; ++i) {
      ftpFileInfo_t t = Task(50 + i % 3, "/data/t" + std::to_string(i), 1);
      mng.InsertFileInfo(&t);
    }
  });
  std::thread control([&] {
    for (int i = 0; i < 100; ++i) mng.SetFtpTrans(1, i % 3, 50 + i % 3);
  });
  std::thread steer([&] {
    for (int i = 0; i < 2000; ++i) {
      engine->SetTaskTrans(i % 2, 1);
      ftpFileInfo_t copy = engine->SnapshotTask();
      (void)copy;
    }
  });
  for (int i = 0; i < 50; ++i) mng.CheckDiskState(101 + i);
  intake.join();
  control.join();
  steer.join();
}

}  // namespace
