class Cart
  constructor: ->
    @items = []

  add: (item) ->
    @items.push item unless item in @items

  total: ->
    sum = 0
    sum += item.price for item in @items
    sum

cart = new Cart
cart.add name: 'pen', price: 2
console.log "total #{cart.total()}"
