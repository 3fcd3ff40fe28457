#include "records/records.hpp"

#include <cinttypes>
#include <cstdio>

#include "context/run_context.hpp"

namespace splitmerge {

block* new_block(run_context& ctx) noexcept {
  // Zero-filled: region fields read as empty even before the regions exist.
  return ctx.blocks.obtain();
}

nb_node* new_nb_node(run_context& ctx, block* region, nb_node* next) noexcept {
  nb_node* e = ctx.entries.obtain();
  if (e != nullptr) {
    e->region = ctx.id(region);
    e->next = ctx.id(next);
  }
  return e;
}

void release_block(run_context& ctx, block* b) noexcept { ctx.blocks.release(b); }
void release_entry(run_context& ctx, nb_node* e) noexcept { ctx.entries.release(e); }

namespace {

void release_chain(run_context& ctx, block* b) noexcept {
  while (b != nullptr) {
    block* next = ctx.block_at(b->next_block);
    release_block(ctx, b);
    b = next;
  }
}

// An absorbed head keeps only its forwarding entry; the entries behind it
// were handed to the absorbing region.
void release_member(run_context& ctx, block* b) noexcept {
  if (b->region_pointer == 0) release_entry(ctx, ctx.entry_at(b->nb_pointers[0]));
  release_block(ctx, b);
}

}  // namespace

std::int32_t free_blocklist(run_context& ctx, blocklist list) noexcept {
  if (list != nullptr) {
    if (ctx.interrupted) {
      ctx.release_records();
    } else {
      release_chain(ctx, list[0]);
    }
    ctx.allocator.release(list);
  }
  return -1;
}

std::int32_t free_initregion(run_context& ctx, blocklist list, void* further) noexcept {
  if (list != nullptr && ctx.interrupted) {
    ctx.release_records();
  } else if (list != nullptr) {
    for (block* b = list[0]; b != nullptr;) {
      block* next = ctx.block_at(b->next_block);
      free_cur_np(ctx, ctx.entry_at(b->nb_pointers[0]));
      release_block(ctx, b);
      b = next;
    }
  }
  ctx.allocator.release(list);
  ctx.allocator.release(further);
  return -1;
}

std::int32_t free_cur_np(run_context& ctx, nb_node* first) noexcept {
  while (first != nullptr) {
    nb_node* next = ctx.entry_at(first->next);
    release_entry(ctx, first);
    first = next;
  }
  return -1;
}

void free_regionlist(run_context& ctx, regionlist head) noexcept {
  if (head == nullptr) return;
  if (ctx.interrupted) {
    ctx.release_records();
    return;
  }
  block* r = head;
  if (r->next_region != 0) {
    while (r != nullptr && r->region_pointer == 0) r = ctx.block_at(r->next_region);
    // Unlink absorbed heads: they are released as members of their absorbers.
    for (block* h = r; h != nullptr; h = ctx.block_at(h->next_region)) {
      block* n = ctx.block_at(h->next_region);
      while (n != nullptr && n->region_pointer == 0) n = ctx.block_at(n->next_region);
      h->next_region = ctx.id(n);
    }
  }
  while (r != nullptr) {
    block* next_region = ctx.block_at(r->next_region);
    free_cur_np(ctx, ctx.entry_at(r->nb_pointers[0]));
    block* b = ctx.block_at(r->next_block);
    release_block(ctx, r);
    while (b != nullptr) {
      block* next = ctx.block_at(b->next_block);
      release_member(ctx, b);
      b = next;
    }
    r = next_region;
  }
}

void print_region(run_context& ctx, const block& b) {
  char line[128];
  // Links are indices into the run's arenas; they are printed as such.
  const auto low = [](std::uint32_t link) { return static_cast<unsigned>(link); };
  std::snprintf(line, sizeof line, "code = %" PRIx64 "\n", ctx.full_code(&b));
  ctx.print(line);
  std::snprintf(line, sizeof line, "variables = %" PRId64 ", %" PRId64 "\n", b.variables[0],
                b.variables[1]);
  ctx.print(line);
  std::snprintf(line, sizeof line, "region_pointer = %x\n", low(b.region_pointer));
  ctx.print(line);
  std::snprintf(line, sizeof line, "nb_pointers = %x, %x\n", low(b.nb_pointers[0]),
                low(b.nb_pointers[1]));
  ctx.print(line);
  std::snprintf(line, sizeof line, "status = %d\n", static_cast<int>(b.status));
  ctx.print(line);
  std::snprintf(line, sizeof line, "next_block = %x\n", low(b.next_block));
  ctx.print(line);
  std::snprintf(line, sizeof line, "next_region = %x\n", low(b.next_region));
  ctx.print(line);
}

}  // namespace splitmerge
