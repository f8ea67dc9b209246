interface Item {
  readonly id: string;
  price: number;
  quantity: number;
}

export class Cart {
  private items: Map<string, Item> = new Map();

  add(item: Item): void {
    const existing = this.items.get(item.id);
    if (existing) {
      existing.quantity += item.quantity;
    } else {
      this.items.set(item.id, { ...item });
    }
  }

  get total(): number {
    let sum = 0;
    for (const item of this.items.values()) {
      sum += item.price * item.quantity;
    }
    return sum;
  }
}

const cart = new Cart();
cart.add({ id: "a1", price: 2.5, quantity: 2 });
console.log(`total: ${cart.total}`);
