#pragma once

struct Vec2 {
  float x, y;
};

struct Particle {
  Vec2 position;
  Vec2 velocity;
  float life;
  unsigned color;
};

struct ParticleSystem {
  Particle particles[256];
  int count;
  unsigned seed;
};

void SpawnParticles(ParticleSystem *system, int how_many);
void StepParticles(ParticleSystem *system, float dt);
float TotalEnergy(const ParticleSystem *system);
