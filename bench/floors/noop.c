/* The least that a static process costs. */
int main(void) {
  return 0;
}
