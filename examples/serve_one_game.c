/* A client program in C: serves one game through one node, and prints every report.
 *
 *   serve_one_game GAME.EXE NODE:PORT SERVER LOG_FOLDER
 *
 * GAME.EXE is the full path of the game's program, SERVER the address of its server. Prints "ready",
 * then a line for each report, until its standard input ends. docs/regions.md explains each step.
 */
#include <windows.h>
#include <sddl.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vyr_regions.h"

#define GAME_ID 10001u
#define GAME_IDC 1001u /* any number that the IP table and the route agree on */
#define NODE_IDC 1u
#define LOCK_WAIT_MS 2000u /* a game may hang while it holds a mutex */
#define DRAIN_EVERY_MS 100u

/* A mapping with the mutex that guards it. The handles stay open: they keep the region alive. */
typedef struct region {
  HANDLE mutex;
  HANDLE mapping;
  unsigned char* view;
} region;

/* Administrators, the system and the user at the machine may do everything, so that games find the
 * objects even if this program runs elevated. */
static SECURITY_ATTRIBUTES access_for_games(void) {
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, NULL, FALSE};
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(
          "D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;IU)", SDDL_REVISION_1,
          &attributes.lpSecurityDescriptor, NULL)) {
    fprintf(stderr, "no security descriptor: error %lu\n", GetLastError());
    exit(1);
  }
  return attributes;
}

static void fail(const char* what, const char* name) {
  fprintf(stderr, "%s %s: error %lu\n", what, name, GetLastError());
  exit(1);
}

/* A mutex whose holder has died counts as taken. */
static int lock(HANDLE mutex) {
  const DWORD waited = WaitForSingleObject(mutex, LOCK_WAIT_MS);
  return waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
}

/* Makes the region or takes over the one that is there. `size` is that of the mapping. */
static region open_region(const char* name, const char* mutex_name, uint32_t size, int* is_new) {
  SECURITY_ATTRIBUTES attributes = access_for_games();
  region r;
  r.mutex = CreateMutexA(&attributes, FALSE, mutex_name);
  if (r.mutex == NULL) fail("cannot make the mutex", mutex_name);
  if (!lock(r.mutex)) fail("another process holds", mutex_name);
  r.mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0, size, name);
  if (r.mapping == NULL) fail("cannot make", name);
  *is_new = GetLastError() != ERROR_ALREADY_EXISTS;
  /* Fails if a program of another version has a smaller one open. */
  r.view = MapViewOfFile(r.mapping, FILE_MAP_ALL_ACCESS, 0, 0, size);
  if (r.view == NULL) fail("cannot map", name);
  LocalFree(attributes.lpSecurityDescriptor);
  return r; /* with its mutex held, so that nobody sees it before it has content */
}

static vyr_shared_mem_header header_for(size_t record_size) {
  vyr_shared_mem_header header;
  header.shared_mem_size = (uint32_t)record_size;
  header.major_ver = VYR_SHARED_MEM_MAJOR_VERSION;
  header.minor_ver = VYR_SHARED_MEM_MINOR_VERSION;
  return header;
}

/* What was there before must have our layout, since games may have it open. */
static void check_header(const region* r, size_t at, size_t record_size, const char* name) {
  const vyr_shared_mem_header ours = header_for(record_size);
  if (memcmp(r->view + at, &ours, sizeof ours) == 0) return;
  fprintf(stderr, "%s belongs to a program of another version\n", name);
  exit(1);
}

/* A plain region: one copy under the mutex. */
static void publish(const char* name, const char* mutex_name, const void* record, size_t size) {
  int is_new = 0;
  region r = open_region(name, mutex_name, (uint32_t)size, &is_new);
  if (!is_new) check_header(&r, 0, size, name);
  memcpy(r.view, record, size);
  ReleaseMutex(r.mutex);
}

/* The route table: readers take no mutex, so the buffer that they do not read is filled, and then
 * the selector is stored. */
static void publish_route(const vyr_route_region* table) {
  const size_t size = sizeof *table;
  int is_new = 0;
  region r = open_region(VYR_ROUTE_REGION_NAME, VYR_ROUTE_MUTEX_NAME,
                         (uint32_t)(sizeof(uint32_t) + 2 * size), &is_new);
  volatile LONG* selector = (volatile LONG*)(void*)r.view;
  LONG next = 0;
  if (is_new) {
    memcpy(r.view + sizeof(uint32_t) + size, &table->header, sizeof table->header);
  } else {
    next = *selector == 0 ? 1 : 0;
    check_header(&r, sizeof(uint32_t) + (size_t)(1 - next) * size, size, VYR_ROUTE_REGION_NAME);
  }
  memcpy(r.view + sizeof(uint32_t) + (size_t)next * size, table, size);
  InterlockedExchange(selector, next);
  ReleaseMutex(r.mutex);
}

static void set_text(char* field, size_t size, const char* text) {
  if (strlen(text) >= size) {
    fprintf(stderr, "too long: %s\n", text);
    exit(2);
  }
  memcpy(field, text, strlen(text) + 1);
}
#define SET_TEXT(field, text) set_text((field), sizeof(field), (text))

static void* new_record(size_t size) {
  vyr_shared_mem_header header = header_for(size);
  void* record = calloc(1, size);
  if (record == NULL) exit(1);
  memcpy(record, &header, sizeof header);
  return record;
}

/* Which addresses belong to the game's servers. Addresses are in network byte order here. */
static void publish_addresses(const unsigned char server[4]) {
  vyr_ip_table_region* table = new_record(sizeof *table);
  table->ip_count = 1;
  table->records[0].game_idc = GAME_IDC;
  memcpy(&table->records[0].ip, server, 4);
  publish(VYR_IP_TABLE_REGION_NAME, VYR_IP_TABLE_MUTEX_NAME, table, sizeof *table);
  free(table);
}

/* The way to them: one node, with the verdict that it is faster. */
static void publish_way(const char* node, unsigned port) {
  vyr_route_region* table = new_record(sizeof *table);
  vyr_proxy_record* proxy = &table->image.proxies[0];
  vyr_route_entry* route = &table->image.route_sets[0].routes[0];
  table->image.proxy_count = 1;
  proxy->proxy_idc = NODE_IDC;
  proxy->proxy_port = (uint16_t)port;
  SET_TEXT(proxy->proxy_addr, node);
  SET_TEXT(proxy->proxy_name, "the node");
  proxy->section1_delay = 10;
  proxy->surport_isps = 0xffffffffu; /* every internet provider */
  table->image.route_sets[0].route_count = 1;
  route->game_idc = GAME_IDC;
  route->direct_delay = 60;
  route->ref_default.proxy_idc = NODE_IDC;
  route->ref_default.decision = VYR_DECISION_ACCE;
  route->ref_default.section2_delay = 12;
  route->ref_default.last_node = NODE_IDC;
  publish_route(table);
  free(table);
}

/* Last: from now on programs that start under this path are served. */
static void publish_game(const char* path, const char* logs) {
  vyr_restriction_region* games = new_record(sizeof *games);
  vyr_acc_config_record* game = &games->games[0];
  game->valid = 1;
  game->game_id = GAME_ID;
  game->net_mode = VYR_NET_MODE_TCP | VYR_NET_MODE_UDP;
  game->acc_mode = 1;
  game->path_count = 1;
  SET_TEXT(game->game_paths[0], path);
  SET_TEXT(game->uin, "20001");
  game->log_level = 4;
  SET_TEXT(game->log_path, logs);
  publish(VYR_RESTRICTION_REGION_NAME, VYR_RESTRICTION_MUTEX_NAME, games, sizeof *games);
  free(games);
}

static const char* ip_text(uint32_t host_order) {
  static char text[16];
  snprintf(text, sizeof text, "%u.%u.%u.%u", (unsigned)(host_order >> 24),
           (unsigned)(host_order >> 16 & 255), (unsigned)(host_order >> 8 & 255),
           (unsigned)(host_order & 255));
  return text;
}

/* One function for each kind of report. The records are copies: nobody else changes them. */

static void print_decision(const void* slot) {
  const vyr_acc_decision_info* d = slot;
  printf("decision: %s %s:%u, reason %d\n", d->socket_type == 0 ? "TCP" : "UDP",
         ip_text(d->game_ip), (unsigned)d->game_port, (int)d->acc_reason);
}

static void print_communication(const void* slot) {
  const vyr_comm_info_record* c = slot;
  printf("communication: %s:%u through %s:%u, sent %u, received %u%s\n", c->game_ip,
         (unsigned)c->game_port, c->proxy_ip, c->proxy_port, (unsigned)c->total_sent_bytes,
         (unsigned)c->total_recv_bytes, c->ended ? ", ended" : "");
}

static void print_log_path(const void* slot) {
  printf("log_path: %s\n", ((const vyr_log_path_record*)slot)->log_path);
}

static void print_loaded(const void* slot) {
  const vyr_lsp_loaded_record* l = slot;
  printf("loaded: %s, %s bits\n", l->process_name, l->is_x64 ? "64" : "32");
}

static void print_negotiation_result(const void* slot) {
  const vyr_neg_ret_record* n = slot;
  printf("negotiation_result: %s:%u refuses %s:%u with %d\n", n->proxy_ip, n->proxy_port,
         n->game_ip, n->game_port, (int)n->nego_result);
}

static void print_real_negotiation(const void* slot) {
  const vyr_real_nego_record* r = slot;
  printf("real_negotiation: %s:%u carries %s:%u\n", r->proxy_ip, (unsigned)r->proxy_port,
         ip_text(r->game_ip), (unsigned)r->game_port);
}

static void print_recovery_switch(const void* slot) {
  const vyr_recovery_switch_record* s = slot;
  printf("recovery_switch: node %d in trouble, outcome %d-%d\n", (int)s->proxy_idc,
         (int)s->need_switch, (int)s->is_switch_succ);
}

typedef struct channel {
  const char *name, *mutex_name;
  uint32_t region_size, slot_count, slot_size;
  void (*print)(const void* slot);
  region r;
} channel;

#define CHANNEL(PREFIX, prefix, record, print)                                               \
  {                                                                                          \
    VYR_##PREFIX##_REGION_NAME, VYR_##PREFIX##_MUTEX_NAME, sizeof(vyr_##prefix##_region),     \
        VYR_##PREFIX##_SLOT_COUNT, sizeof(record), print, { NULL, NULL, NULL }                \
  }

static channel channels[] = {
    CHANNEL(LOADED, loaded, vyr_lsp_loaded_record, print_loaded),
    CHANNEL(LOG_PATH, log_path, vyr_log_path_record, print_log_path),
    CHANNEL(DECISION, decision, vyr_acc_decision_info, print_decision),
    CHANNEL(NEGOTIATION_RESULT, negotiation_result, vyr_neg_ret_record, print_negotiation_result),
    CHANNEL(REAL_NEGOTIATION, real_negotiation, vyr_real_nego_record, print_real_negotiation),
    CHANNEL(COMMUNICATION, communication, vyr_comm_info_record, print_communication),
    CHANNEL(RECOVERY_SWITCH, recovery_switch, vyr_recovery_switch_record, print_recovery_switch),
};
enum { CHANNELS = sizeof channels / sizeof channels[0], SLOTS_AT = 16 };

/* Reports of an earlier client program that nobody has taken out stay, and come out first. */
static void make_channel(channel* c) {
  int is_new = 0;
  c->r = open_region(c->name, c->mutex_name, c->region_size, &is_new);
  if (is_new) {
    const vyr_shared_mem_header header = header_for(c->region_size);
    memcpy(c->r.view, &header, sizeof header);
  }
  check_header(&c->r, 0, c->region_size, c->name);
  ReleaseMutex(c->r.mutex);
}

/* Copies the full slots and frees them, both under the mutex, and prints without it. */
static void drain(channel* c) {
  unsigned char* copies = malloc((size_t)c->slot_count * c->slot_size);
  uint32_t taken = 0, i;
  if (copies == NULL || !lock(c->r.mutex)) { /* a game hangs with it: another time */
    free(copies);
    return;
  }
  for (i = 0; i < c->slot_count; ++i) {
    unsigned char* slot = c->r.view + SLOTS_AT + (size_t)i * c->slot_size;
    if (*(volatile unsigned char*)slot == 0) continue;
    memcpy(copies + (size_t)taken++ * c->slot_size, slot, c->slot_size);
    *(volatile unsigned char*)slot = 0;
  }
  ReleaseMutex(c->r.mutex);
  for (i = 0; i < taken; ++i) c->print(copies + (size_t)i * c->slot_size);
  free(copies);
}

static DWORD WINAPI wait_for_end_of_input(void* event) {
  while (getchar() != EOF) {
  }
  SetEvent(event);
  return 0;
}

static int parse_address(const char* text, unsigned char out[4]) {
  unsigned a, b, c, d;
  char rest;
  if (sscanf(text, "%u.%u.%u.%u%c", &a, &b, &c, &d, &rest) != 4) return 0;
  if (a > 255 || b > 255 || c > 255 || d > 255) return 0;
  out[0] = (unsigned char)a;
  out[1] = (unsigned char)b;
  out[2] = (unsigned char)c;
  out[3] = (unsigned char)d;
  return 1;
}

int main(int argc, char** argv) {
  unsigned char address[4];
  char node[32] = "";
  unsigned port = 0;
  HANDLE end;
  int i;
  if (argc != 5 || sscanf(argv[2], "%31[0-9.]:%u", node, &port) != 2 || port > 65535 ||
      !parse_address(node, address) || !parse_address(argv[3], address)) {
    fprintf(stderr, "usage: serve_one_game GAME.EXE NODE:PORT SERVER LOG_FOLDER\n");
    return 2;
  }
  for (i = 0; i < CHANNELS; ++i) make_channel(&channels[i]);
  publish_addresses(address);
  publish_way(node, port);
  publish_game(argv[1], argv[4]);
  printf("ready\n");
  fflush(stdout);

  end = CreateEventA(NULL, TRUE, FALSE, NULL);
  if (end == NULL) fail("cannot make", "an event");
  CloseHandle(CreateThread(NULL, 0, wait_for_end_of_input, end, 0, NULL));
  while (WaitForSingleObject(end, DRAIN_EVERY_MS) == WAIT_TIMEOUT) {
    for (i = 0; i < CHANNELS; ++i) drain(&channels[i]);
    fflush(stdout);
  }
  for (i = 0; i < CHANNELS; ++i) drain(&channels[i]);
  return 0;
}
