package cache

import (
	"sync"
	"time"
)

// Cache keeps values for a fixed time.
type Cache struct {
	mu      sync.Mutex
	entries map[string]entry
	ttl     time.Duration
}

type entry struct {
	value   string
	expires time.Time
}

func New(ttl time.Duration) *Cache {
	return &Cache{entries: make(map[string]entry), ttl: ttl}
}

func (c *Cache) Get(key string) (string, bool) {
	c.mu.Lock()
	defer c.mu.Unlock()
	e, ok := c.entries[key]
	if !ok || time.Now().After(e.expires) {
		return "", false
	}
	return e.value, true
}
