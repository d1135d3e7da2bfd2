#include "file_server.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "exit_status.h"
#include "http_url.h"
#include "xml_text.h"

namespace vexcp {

namespace {

namespace fs = std::filesystem;
namespace st = vex_upnp::streaming;
using vex_upnp::utils::HTTP_GET;
using vex_upnp::utils::HTTP_HEAD;

// One piece of a body.
constexpr std::size_t kPiece = 1024 * 1024;

constexpr std::array<std::pair<const char*, const char*>, 26> kTypes{{
    {"mp4", "video/mp4"},
    {"m4v", "video/mp4"},
    {"mkv", "video/x-matroska"},
    {"webm", "video/webm"},
    {"avi", "video/x-msvideo"},
    {"mov", "video/quicktime"},
    {"mpg", "video/mpeg"},
    {"mpeg", "video/mpeg"},
    {"ts", "video/mp2t"},
    {"ogv", "video/ogg"},
    {"mp3", "audio/mpeg"},
    {"m4a", "audio/mp4"},
    {"aac", "audio/aac"},
    {"flac", "audio/flac"},
    {"ogg", "audio/ogg"},
    {"opus", "audio/ogg"},
    {"wav", "audio/wav"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"png", "image/png"},
    {"gif", "image/gif"},
    {"webp", "image/webp"},
    {"html", "text/html"},
    {"txt", "text/plain"},
    {"srt", "application/x-subrip"},
    {"xml", "text/xml"},
}};

// The records take plain strings, which the library only reads.
char* Lend(const std::string& text) { return const_cast<char*>(text.c_str()); }

std::string HttpDate(std::time_t time) {
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[40];
  std::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return text;
}

// A page with links to what is in a folder.
std::string Listing(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name[0] != '.') names.push_back(entry->is_directory(error) ? name + "/" : name);
  }
  std::sort(names.begin(), names.end());
  std::string page = "<!DOCTYPE html><meta charset=\"utf-8\"><title>vexcp</title><ul>\n";
  for (const std::string& name : names) {
    const bool is_folder = name.back() == '/';
    const std::string bare = is_folder ? name.substr(0, name.size() - 1) : name;
    page += "<li><a href=\"./" + EscapeText(EscapePathPiece(bare)) + (is_folder ? "/" : "") +
            "\">" + EscapeText(name) + "</a>\n";
  }
  return page + "</ul>\n";
}

std::string CanonicalPath(const std::string& path) {
  std::error_code error;
  const std::string canonical = fs::canonical(path, error).string();
  if (error) throw Failure(kWrongArguments, path + " cannot be served: " + error.message());
  return canonical;
}

}  // namespace

std::string MimeType(const std::string& name) {
  std::string ending = fs::path(name).extension().string();
  if (!ending.empty()) ending.erase(0, 1);
  for (char& c : ending) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto& [known, type] : kTypes)
    if (ending == known) return type;
  return "application/octet-stream";
}

// A file goes out from mapped memory, so that its bytes are copied once, into the socket. Only the
// kernel touches them: a file that becomes shorter meanwhile fails the write and nothing else.
struct FileServer::Transfer {
  Transfer() = default;
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    Unmap();
    if (file >= 0) close(file);
  }

  void Unmap() {
    if (mapped != nullptr) munmap(mapped, mapped_size);
    mapped = nullptr;
  }
  // The next bytes, at most `size`; null when they cannot be had.
  void* Next(std::size_t size) {
    Unmap();
    if (file < 0) return text.data() + next;
    // A mapping begins on a page.
    const std::size_t before = static_cast<std::size_t>(next % sysconf(_SC_PAGESIZE));
    mapped_size = size + before;
    void* const pages = mmap(nullptr, mapped_size, PROT_READ, MAP_SHARED | MAP_POPULATE, file,
                             static_cast<off_t>(next - static_cast<long long>(before)));
    if (pages == MAP_FAILED) return nullptr;
    mapped = pages;
    return static_cast<char*>(pages) + before;
  }

  int file = -1;
  // Instead of a file.
  std::string text;
  long long next = 0;
  long long left = 0;
  void* mapped = nullptr;
  std::size_t mapped_size = 0;
};

struct FileServer::Answer {
  unsigned status = 404;
  std::string type;
  std::string modified;
  // Of the whole resource.
  long long size = 0;
  ByteRange range;
  std::shared_ptr<Transfer> transfer = std::make_shared<Transfer>();
};

std::shared_mutex FileServer::current_mutex_;
FileServer* FileServer::current_ = nullptr;

FileServer::FileServer(const std::string& path, Tell tell)
    : root_(CanonicalPath(path)), tell_(std::move(tell)) {
  std::error_code error;
  is_folder_ = fs::is_directory(root_, error);
  if (access(root_.c_str(), R_OK) != 0 || (!is_folder_ && !fs::is_regular_file(root_, error)))
    throw Failure(kWrongArguments, path + " cannot be served: it is no readable file or folder");
  const std::unique_lock<std::shared_mutex> alone(current_mutex_);
  current_ = this;
  st::InitializeStreamingManager();
}

FileServer::~FileServer() {
  if (configuration_ != 0) st::StopServers(configuration_);
  {
    const std::unique_lock<std::shared_mutex> alone(current_mutex_);
    current_ = nullptr;
  }
  st::TerminateStreamingManager();
}

std::vector<std::string> FileServer::Start(const std::string& ip, int port) {
  const st::ServerAppCallbacks callbacks{OnConnect, OnStatus, OnRequest, OnData, OnWritten};
  st::stServer* servers = nullptr;
  const int code = st::StartServers(&callbacks, ip.empty() ? nullptr : ip.c_str(), port, &servers,
                                    &configuration_);
  if (code != 0)
    throw Failure(kNotStarted,
                  "no server could be opened (StartServers gave " + std::to_string(code) + ")");
  // For all interfaces the call works also when no server did.
  if (servers == nullptr)
    throw Failure(kNotStarted, "no server could be opened on port " + std::to_string(port) +
                                   " or on one of the hundred from there on");
  std::vector<std::string> addresses;
  for (const st::stServer* server = servers; server != nullptr; server = server->next)
    addresses.push_back(Address(server->server_id));
  st::FreeServerInfoList(servers);
  return addresses;
}

std::string FileServer::Address(int server_id) const {
  st::stServer* const server = st::GetConfiguredServers(server_id);
  if (server == nullptr) return std::string();
  const std::string address =
      std::string("http://") + server->ip + ":" + std::to_string(server->port) + "/" +
      (is_folder_ ? std::string() : EscapePathPiece(fs::path(root_).filename().string()));
  st::FreeServerInfoList(server);
  return address;
}

void FileServer::OnStatus(int server, int session, int code) {
  const std::shared_lock<std::shared_mutex> inside(current_mutex_);
  if (current_ == nullptr) return;
  if (session != 0) {
    const std::lock_guard<std::mutex> lock(current_->mutex_);
    current_->transfers_.erase({server, session});
  } else if (code == st::STREAMING_SERVER_STARTED) {
    current_->tell_(current_->Address(server));
  } else {
    current_->tell_("an interface is gone, and its server with it");
    const std::lock_guard<std::mutex> lock(current_->mutex_);
    current_->ended_.clear();
    auto& transfers = current_->transfers_;
    for (auto one = transfers.begin(); one != transfers.end();) {
      const auto next = std::next(one);
      if (one->first.first == server) current_->ended_.insert(transfers.extract(one));
      one = next;
    }
  }
}

void FileServer::OnRequest(int server, int session, st::ReqHeaderInfo* request, void* body,
                           unsigned int, bool) {
  {
    const std::shared_lock<std::shared_mutex> inside(current_mutex_);
    if (current_ != nullptr) current_->AnswerRequest({server, session}, *request);
  }
  st::FreeRequestHeader(request);
  st::Free(body);
}

// Bodies of requests are not wanted; the answer has gone out before.
void FileServer::OnData(int, int, void* data, unsigned int, bool) { st::Free(data); }

FileServer::Answer FileServer::Find(const st::ReqHeaderInfo& request) const {
  Answer answer;
  if (request.request_type != HTTP_GET && request.request_type != HTTP_HEAD) {
    answer.status = 405;
    return answer;
  }
  const std::string target = request.uri == nullptr ? std::string() : request.uri;
  const std::string path = UnescapePath(target.substr(0, target.find('?')));
  std::error_code error;
  const fs::path wanted = is_folder_ ? fs::canonical(root_ + "/" + path, error) : fs::path(root_);
  const std::string below = root_ == "/" ? root_ : root_ + "/";
  // Neither ".." nor a link leads out of the folder; a single file has one name.
  const bool inside = is_folder_
                          ? wanted == root_ || wanted.string().compare(0, below.size(), below) == 0
                          : path == "/" + fs::path(root_).filename().string();
  if (error || !inside) return answer;
  struct stat info {};
  answer.transfer->file = open(wanted.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (answer.transfer->file < 0 || fstat(answer.transfer->file, &info) != 0) return answer;
  if (S_ISDIR(info.st_mode)) {
    close(answer.transfer->file);
    answer.transfer->file = -1;
    answer.transfer->text = Listing(wanted);
    answer.size = static_cast<long long>(answer.transfer->text.size());
    answer.type = "text/html; charset=utf-8";
  } else if (S_ISREG(info.st_mode)) {
    answer.size = info.st_size;
    answer.type = MimeType(wanted.string());
    answer.modified = HttpDate(info.st_mtime);
  } else {
    return answer;
  }
  std::string range;
  st::GetResponseAdditionalHeaders(request.additional_headers, "Range", range);
  answer.range = FindRange(range, answer.size);
  answer.status = answer.range.kind == ByteRange::Kind::kWhole  ? 200
                  : answer.range.kind == ByteRange::Kind::kPart ? 206
                                                                : 416;
  return answer;
}

void FileServer::AnswerRequest(const SessionKey& key, const st::ReqHeaderInfo& request) {
  const Answer answer = Find(request);
  const bool found = answer.status == 200 || answer.status == 206;
  const bool has_body = found && request.request_type == HTTP_GET && answer.range.length > 0;
  const std::string size = std::to_string(answer.size), close = "close", bytes = "bytes",
                    agent = "vexcp/1.0";
  st::ResHeaderInfo response;
  st::InitializeResponseInfo(&response);
  response.http_version = st::HTTP_1_1;
  response.status_code = answer.status;
  response.connection = Lend(close);
  response.server = Lend(agent);
  response.accept_ranges = Lend(bytes);
  if (found) {
    response.content_length = answer.range.length;
    response.content_type = Lend(answer.type);
    if (!answer.modified.empty()) response.last_modified = Lend(answer.modified);
  }
  // The first one, if any, for what the status needs; the second since a length of 0 is left out of
  // the record's own field.
  std::string name, value;
  if (answer.status == 206) {
    name = "Content-Range";
    value = "bytes " + std::to_string(answer.range.first) + "-" +
            std::to_string(answer.range.first + answer.range.length - 1) + "/" + size;
  } else if (answer.status == 416) {
    name = "Content-Range";
    value = "bytes */" + size;
  } else if (answer.status == 405) {
    name = "Allow";
    value = "GET, HEAD";
  }
  const std::string length_name = "Content-Length", zero = "0";
  st::stArgument no_length{Lend(length_name), Lend(zero), nullptr};
  st::stArgument special{Lend(name), Lend(value),
                         response.content_length == 0 ? &no_length : nullptr};
  response.additional_headers = name.empty() ? special.next : &special;
  if (has_body) {
    answer.transfer->next = answer.range.first;
    answer.transfer->left = answer.range.length;
    const std::lock_guard<std::mutex> lock(mutex_);
    transfers_[key] = answer.transfer;
  }
  tell_(std::string(request.request_type == HTTP_HEAD  ? "HEAD "
                    : request.request_type == HTTP_GET ? "GET "
                                                       : "POST ") +
        (request.uri == nullptr ? "" : request.uri) + "  " + std::to_string(answer.status) +
        (answer.status == 206 ? "  " + value : std::string()));
  if (st::SendHTTPResponse(key.first, key.second, &response, !has_body) == 0) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  transfers_.erase(key);
}

void FileServer::OnWritten(int server, int session, unsigned int) {
  const std::shared_lock<std::shared_mutex> inside(current_mutex_);
  if (current_ != nullptr) current_->SendNext({server, session});
}

void FileServer::SendNext(const SessionKey& key) {
  std::shared_ptr<Transfer> transfer;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = transfers_.find(key);
    if (found == transfers_.end()) return;
    transfer = found->second;
  }
  const std::size_t size =
      static_cast<std::size_t>(std::min(transfer->left, static_cast<long long>(kPiece)));
  // The last payload passes to the library, and mapped memory cannot: an empty one ends the answer.
  const bool last = size == 0;
  void* const piece = last ? nullptr : transfer->Next(size);
  transfer->next += static_cast<long long>(size);
  transfer->left -= static_cast<long long>(size);
  const bool sent =
      (last || piece != nullptr) &&
      st::SendHTTPPayload(key.first, key.second, piece, static_cast<unsigned int>(size), last) == 0;
  if (sent && !last) return;
  // Where the file cannot be read the client sees an early end.
  if (!sent) st::StopServerTransfer(key.first, key.second);
  const std::lock_guard<std::mutex> lock(mutex_);
  transfers_.erase(key);
}

}  // namespace vexcp
