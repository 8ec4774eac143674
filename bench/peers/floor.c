/* The least that a call can cost: encodes the image, writes the request and reads
 * the answer on one blocking socket.
 *   floor PORT IMAGE REQUEST CALLS
 * REQUEST is a request with an empty image. */
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/base64.h"

struct text {
  char* data;
  size_t size;
};

static void fail(const char* what) {
  perror(what);
  exit(1);
}

static struct text read_file(const char* path) {
  struct text out;
  FILE* file = fopen(path, "rb");
  if (!file || fseek(file, 0, SEEK_END) != 0) fail(path);
  out.size = (size_t)ftell(file);
  rewind(file);
  out.data = malloc(out.size + 1);
  if (!out.data || fread(out.data, 1, out.size, file) != out.size) fail(path);
  out.data[out.size] = '\0';
  fclose(file);
  return out;
}

static int connect_to(int port) {
  struct sockaddr_in address;
  const int on = 1;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons((unsigned short)port);
  if (fd < 0 || connect(fd, (struct sockaddr*)&address, sizeof address) != 0) fail("connect");
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

static void write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written <= 0) fail("write");
    data += written;
    size -= (size_t)written;
  }
}

static double cpu_seconds(void) {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         1e-6 * (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

/* The server's answer fits one segment and ends with the JSON object. */
static void read_answer(int fd) {
  char answer[8192];
  size_t have = 0;
  do {
    const ssize_t got = read(fd, answer + have, sizeof answer - have);
    if (got <= 0) fail("read");
    have += (size_t)got;
  } while (have < 2 || memcmp(answer + have - 2, "}}", 2) != 0);
}

int main(int argc, char** argv) {
  static const char mark[] = "\"data\": \"";
  if (argc != 5) return 2;
  const struct text image = read_file(argv[2]), request = read_file(argv[3]);
  char* const hole = strstr(request.data, mark);
  if (!hole) return 2;
  const size_t before = (size_t)(hole - request.data) + sizeof mark - 1;
  const size_t after = request.size - before - 1; /* without the line's end */
  const size_t encoded = (image.size + 2) / 3 * 4;
  const long calls = atol(argv[4]);
  const int fd = connect_to(atoi(argv[1]));
  char* const body = malloc(before + encoded + after + 1);
  double start = 0;
  if (!body) fail("malloc");
  for (long i = -1; i < calls; ++i) {
    char head[512];
    if (i == 0) start = cpu_seconds();
    const int head_size = snprintf(head, sizeof head,
                                   "POST /v1/messages HTTP/1.1\r\nhost: 127.0.0.1\r\nx-api-key: bench-key-0123456789\r\n"
                                   "anthropic-version: 2023-06-01\r\ncontent-type: application/json\r\n"
                                   "content-length: %zu\r\n\r\n",
                                   before + encoded + after);
    memcpy(body, request.data, before);
    bench_base64(image.data, image.size, body + before);
    memcpy(body + before + encoded, request.data + before, after);
    write_all(fd, head, (size_t)head_size);
    write_all(fd, body, before + encoded + after);
    read_answer(fd);
  }
  printf("{\"cpu_s\": %.9f}\n", (cpu_seconds() - start) / (double)calls);
  return 0;
}
