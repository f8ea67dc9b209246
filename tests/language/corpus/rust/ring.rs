use std::collections::VecDeque;

/// A fixed-size ring of recent readings.
pub struct Ring<T> {
    items: VecDeque<T>,
    capacity: usize,
}

impl<T: Clone> Ring<T> {
    pub fn new(capacity: usize) -> Self {
        Ring { items: VecDeque::with_capacity(capacity), capacity }
    }

    pub fn push(&mut self, value: T) {
        if self.items.len() == self.capacity {
            self.items.pop_front();
        }
        self.items.push_back(value);
    }

    pub fn latest(&self) -> Option<&T> {
        self.items.back()
    }
}

fn main() {
    let mut ring: Ring<u32> = Ring::new(3);
    for n in 0..5u32 {
        ring.push(n);
    }
    match ring.latest() {
        Some(v) => println!("latest {}", v),
        None => println!("empty"),
    }
}
