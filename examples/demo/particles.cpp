#include "particles.h"

static unsigned NextRandom(unsigned *seed) {
  *seed = *seed * 1664525u + 1013904223u;
  return *seed >> 8;
}

static float RandomUnit(unsigned *seed) { return (float)(NextRandom(seed) & 0xFFFF) / 65535.0f; }

void SpawnParticles(ParticleSystem *system, int how_many) {
  for (int i = 0; i < how_many && system->count < 256; i++) {
    Particle *p = &system->particles[system->count++];
    p->position = {RandomUnit(&system->seed) * 100.0f, 0.0f};
    p->velocity = {RandomUnit(&system->seed) - 0.5f, RandomUnit(&system->seed) * 4.0f};
    p->life = 1.0f + RandomUnit(&system->seed);
    p->color = NextRandom(&system->seed) | 0xFF000000u;
  }
}

void StepParticles(ParticleSystem *system, float dt) {
  int alive = 0;
  for (int i = 0; i < system->count; i++) {
    Particle p = system->particles[i];
    p.velocity.y -= 9.81f * dt;
    p.position.x += p.velocity.x * dt;
    p.position.y += p.velocity.y * dt;
    p.life -= dt;
    if (p.life > 0.0f) system->particles[alive++] = p;
  }
  system->count = alive;
}

float TotalEnergy(const ParticleSystem *system) {
  float energy = 0.0f;
  for (int i = 0; i < system->count; i++) {
    const Vec2 &v = system->particles[i].velocity;
    energy += 0.5f * (v.x * v.x + v.y * v.y);
  }
  return energy;
}
